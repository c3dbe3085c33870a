# The installed copy: headers, both libraries in both forms, a CMake package and a pkg-config file each.

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/brenvole)
install(TARGETS qxutil qxutil_static brenvole brenvole_static EXPORT brenvole-targets)
install(DIRECTORY include/brenvole DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES src/util/qxutil.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/brenvole)
install(EXPORT brenvole-targets NAMESPACE brenvole:: DESTINATION ${package_dir})

configure_package_config_file(cmake/brenvole-config.cmake.in ${PROJECT_BINARY_DIR}/brenvole-config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/brenvole-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/brenvole-config.cmake ${PROJECT_BINARY_DIR}/brenvole-config-version.cmake
  DESTINATION ${package_dir})

# Relative to the file itself, so that an installed tree may be moved.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(library brenvole qxutil) # as the linker looks for them, where names are told apart by their case
  get_target_property(pc_${library} ${library} OUTPUT_NAME)
  if(NOT pc_${library})
    set(pc_${library} ${library})
  endif()
endforeach()
configure_file(cmake/brenvole.pc.in ${PROJECT_BINARY_DIR}/brenvole.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/brenvole.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(WIN32)
  # Import libraries for this compiler are installed with the targets; the other one's `lib` tool makes its own of these.
  install(FILES cmake/brenvole.def cmake/qxutil.def README.md LICENSE DESTINATION .)
  set(CPACK_PACKAGE_FILE_NAME brenvole-${PROJECT_VERSION}-windows-x64)
  include(CPack)
endif()
