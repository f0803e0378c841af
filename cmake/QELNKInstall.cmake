include(CMakePackageConfigHelpers)

install(TARGETS QELNetworkKit EXPORT QELNetworkKitTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${QELNK_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELNetworkKit)
install(FILES daemon/resources/Empty.prj DESTINATION ${CMAKE_INSTALL_LIBDIR}/QELNetworkKit)
install(EXPORT QELNetworkKitTargets NAMESPACE QELNetworkKit:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QELNetworkKit)
configure_package_config_file(cmake/QELNetworkKitConfig.cmake.in "${PROJECT_BINARY_DIR}/QELNetworkKitConfig.cmake"
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QELNetworkKit)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QELNetworkKitConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/QELNetworkKitConfig.cmake" "${PROJECT_BINARY_DIR}/QELNetworkKitConfigVersion.cmake"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QELNetworkKit)
