# Installs the headers, both libraries (and the host services), the tool, the CMake package and fcadmin.pc.
include(CMakePackageConfigHelpers)

install(FILES include/fcadmin.h include/fcadmin_platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
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
configure_file(cmake/fcadmin.pc.in ${PROJECT_BINARY_DIR}/fcadmin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/fcadmin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
