# How everything here is compiled, and the two rules that make a library.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_library(brenvole_settings INTERFACE)
if(MSVC)
  target_compile_options(brenvole_settings INTERFACE /W4 /utf-8 /EHsc $<$<BOOL:${BRENVOLE_WERROR}>:/WX>)
else()
  target_compile_options(brenvole_settings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${BRENVOLE_WERROR}>:-Werror>)
endif()
target_include_directories(brenvole_settings INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
if(WIN32)
  if(NOT MSVC)
    add_link_options(-static $<$<CONFIG:Release>:-s>) # programs need nothing but our two libraries and the system's
  endif()
  # Where programs of the build run here: in the emulator, with a world of their own.
  set(windows_environment WINEPREFIX=${PROJECT_BINARY_DIR}/wine WINEDEBUG=-all)
  add_compile_definitions(_WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX)
endif()
if(BRENVOLE_SANITIZE)
  # noinline frames make reports readable; a failed check ends the program, so that no test passes over it
  add_compile_options(-fsanitize=${BRENVOLE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${BRENVOLE_SANITIZE})
endif()

# lib<name>.so, which exports what `api` marks and cmake/<name>.map lists, and lib<name>.a, which exports nothing, so
# that a library that embeds it doesn't pass our names on.
function(brenvole_library name api)
  find_package(Threads REQUIRED)
  if(WIN32)
    set(map ${PROJECT_SOURCE_DIR}/cmake/${name}.def)
    add_library(${name} SHARED ${ARGN} ${map})
  else()
    set(map ${PROJECT_SOURCE_DIR}/cmake/${name}.map)
    add_library(${name} SHARED ${ARGN})
  endif()
  add_library(${name}_static STATIC ${ARGN})
  set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name} POSITION_INDEPENDENT_CODE ON)
  if(MSVC) # the import library has that name
    set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name}_static)
  endif()
  if(WIN32)
    set(dll_qxutil QXUtil)
    set(dll_brenvole Brenvole)
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ${dll_${name}} PREFIX "" LINK_DEPENDS ${map})
  else()
    target_compile_definitions(${name} PRIVATE "${api}=__attribute__((visibility(\"default\")))")
    target_compile_options(${name} PRIVATE -fno-plt) # a call of the other library takes one jump, not two
    set_target_properties(${name} PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${BRENVOLE_ABI} LINK_DEPENDS ${map} BUILD_RPATH_USE_ORIGIN ON
      INSTALL_RPATH $ORIGIN)
    # symbolic: the library's calls of its own exports stay inside it; DllMain is a name that others have too
    target_link_options(${name} PRIVATE -Wl,--version-script=${map} -Wl,-Bsymbolic-functions)
  endif()
  if(NOT BRENVOLE_SANITIZE AND NOT WIN32) # a sanitizer's runtime is linked into the program, not into its libraries
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  foreach(target ${name} ${name}_static)
    target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE Threads::Threads $<BUILD_INTERFACE:brenvole_settings>)
    # a unique symbol, which the standard library's templates would have, keeps a plug-in that embeds us from being unloaded
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
    add_library(brenvole::${target} ALIAS ${target})
  endforeach()
endfunction()
