# Installs the headers, both libraries (and the host services), the tool, the CMake package, fcadmin.pc,
# the manual pages and the bash completion.
include(CMakePackageConfigHelpers)

# The installed fcadmin.h carries this build's fixed paths as its defaults, so that every consumer
# (CMake package, pkg-config, or a plain -I) compiles with the paths the library was built with,
# without definitions on its command line that a build system might quote wrongly.
file(READ ${PROJECT_SOURCE_DIR}/include/fcadmin.h FCADMIN_INSTALLED_HEADER)
foreach(path TRANSFER_LOG FETCH_DIR DUMP_FILE USB_TMP_FILE EXPORT_STAGING_DIR EXPORT_BATCH_FILE
             EXPORT_SOURCE_DIR DEBUG_MARKER)
  string(REPLACE "\\" "\\\\" value "${FCADMIN_${path}}")
  string(REPLACE "\"" "\\\"" value "${value}")
  string(REGEX MATCH "#define FCADMIN_${path} \"[^\n]*\"" default_line "${FCADMIN_INSTALLED_HEADER}")
  if(NOT default_line)
    message(FATAL_ERROR "include/fcadmin.h has no default for FCADMIN_${path}")
  endif()
  string(REPLACE "${default_line}" "#define FCADMIN_${path} \"${value}\"" FCADMIN_INSTALLED_HEADER
         "${FCADMIN_INSTALLED_HEADER}")
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/installed/fcadmin.h CONTENT "${FCADMIN_INSTALLED_HEADER}" @ONLY)

install(FILES ${PROJECT_BINARY_DIR}/installed/fcadmin.h include/fcadmin_platform.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS fcadmin_shared fcadmin_static fcadmin_host_shared fcadmin_host_static
        EXPORT fcadminTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET fcadmin_tool)
  install(TARGETS fcadmin_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(EXPORT fcadminTargets NAMESPACE fcadmin:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fcadmin)
configure_package_config_file(cmake/fcadminConfig.cmake.in ${PROJECT_BINARY_DIR}/fcadminConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fcadmin)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/fcadminConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/fcadminConfig.cmake ${PROJECT_BINARY_DIR}/fcadminConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fcadmin)

# fcadmin.pc finds its prefix from its own place, so that `cmake --install --prefix DIR` and a moved
# install tree stay right.
file(RELATIVE_PATH FCADMIN_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" FCADMIN_PC_TO_PREFIX "${FCADMIN_PC_TO_PREFIX}")
configure_file(cmake/fcadmin.pc.in ${PROJECT_BINARY_DIR}/fcadmin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/fcadmin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The manual pages, with this build's version and fixed paths, and the tool's bash completion, laid out
# in the build tree as under the prefix (the tests read them there, next to bin/fcadmin).
configure_file(docs/man/fcadmin.3.in ${PROJECT_BINARY_DIR}/share/man/man3/fcadmin.3 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/share/man/man3/fcadmin.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
if(TARGET fcadmin_tool)
  configure_file(docs/man/fcadmin.1.in ${PROJECT_BINARY_DIR}/share/man/man1/fcadmin.1 @ONLY)
  configure_file(tools/fcadmin/completion.bash ${PROJECT_BINARY_DIR}/share/bash-completion/completions/fcadmin
                 COPYONLY)
  install(FILES ${PROJECT_BINARY_DIR}/share/man/man1/fcadmin.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PROJECT_BINARY_DIR}/share/bash-completion/completions/fcadmin
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()
