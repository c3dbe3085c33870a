# The report page of brenvole-trace, as two string literals: brenvole_page(target) gives them to a target. The chart
# library comes by npm, in the version and with the hashes of package-lock.json, into the build directory.

find_program(BRENVOLE_NPM npm)
find_program(BRENVOLE_NODE NAMES node nodejs)
if(NOT BRENVOLE_NPM OR NOT BRENVOLE_NODE)
  message(FATAL_ERROR "brenvole-trace's page needs npm and node, which fetch its chart library and put it together. On "
    "Debian: apt-get install npm. -DBRENVOLE_TOOLS=OFF builds without")
endif()

set(page_sources ${CMAKE_CURRENT_LIST_DIR})
set(page_build ${CMAKE_CURRENT_BINARY_DIR}/page)
set(page_packages ${page_sources}/package.json ${page_sources}/package-lock.json ${page_sources}/.npmrc)
file(GLOB page_parts CONFIGURE_DEPENDS ${page_sources}/*.js ${page_sources}/*.mjs ${page_sources}/report.*)

add_custom_command(OUTPUT ${page_build}/installed
  COMMAND ${CMAKE_COMMAND} -E make_directory ${page_build}
  COMMAND ${CMAKE_COMMAND} -E copy ${page_packages} ${page_build}
  COMMAND ${BRENVOLE_NPM} ci --prefix ${page_build} --ignore-scripts --no-audit --no-fund --loglevel=error
  COMMAND ${CMAKE_COMMAND} -E touch ${page_build}/installed
  DEPENDS ${page_packages}
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  COMMENT "Fetching the chart library of brenvole-trace's page"
  VERBATIM)
add_custom_command(OUTPUT ${page_build}/page.cpp
  COMMAND ${BRENVOLE_NODE} ${page_sources}/assemble.mjs ${page_sources} ${page_build}/node_modules ${page_build}/page.cpp
  DEPENDS ${page_build}/installed ${page_parts}
  COMMENT "Putting brenvole-trace's page together"
  VERBATIM)

add_library(brenvole_page OBJECT ${page_build}/page.cpp) # compiled once for all who show it
target_include_directories(brenvole_page PRIVATE ${page_sources}/../trace) # page.h declares the two

function(brenvole_page target)
  target_link_libraries(${target} PRIVATE brenvole_page)
endfunction()
