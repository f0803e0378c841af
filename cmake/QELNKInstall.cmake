# What an application finds: in the build tree, installed, and in Debian's packages, of which each is one component.
include(CMakePackageConfigHelpers)

install(TARGETS QELNetworkKit EXPORT QELNetworkKitTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(FILES daemon/resources/Empty.prj DESTINATION ${CMAKE_INSTALL_LIBDIR}/${QELNK_RESOURCES} COMPONENT library)
install(FILES ${QELNK_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELNetworkKit COMPONENT development)

# The CMake package. The one of the build tree lies at its top.
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/QELNetworkKit)
install(EXPORT QELNetworkKitTargets NAMESPACE QELNetworkKit:: DESTINATION ${package_folder} COMPONENT development)
export(EXPORT QELNetworkKitTargets NAMESPACE QELNetworkKit:: FILE "${PROJECT_BINARY_DIR}/QELNetworkKitTargets.cmake")
configure_package_config_file(cmake/QELNetworkKitConfig.cmake.in "${PROJECT_BINARY_DIR}/QELNetworkKitConfig.cmake"
                              INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QELNetworkKitConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/QELNetworkKitConfig.cmake" "${PROJECT_BINARY_DIR}/QELNetworkKitConfigVersion.cmake"
        DESTINATION ${package_folder} COMPONENT development)

# The same for pkg-config. What is installed can be moved: its paths start from the file itself.
set(pc_folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH includedir_from_pc "${pc_folder}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
set(pc_libdir "\${pcfiledir}/..")
set(pc_includedir "\${pcfiledir}/${includedir_from_pc}")
set(pc_link_flags "")
configure_file(cmake/qelnetworkkit.pc.in "${PROJECT_BINARY_DIR}/installed/qelnetworkkit.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/installed/qelnetworkkit.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
set(pc_libdir "\${pcfiledir}/lib")
set(pc_includedir "${PROJECT_SOURCE_DIR}/include")
set(pc_link_flags " -Wl,-rpath,\${libdir}")  # as CMake does for what it builds against a build tree
configure_file(cmake/qelnetworkkit.pc.in "${PROJECT_BINARY_DIR}/qelnetworkkit.pc" @ONLY)

# The licence, once where a user installs the whole, and once for each of Debian's packages.
set(package_library libqelnetworkkit${PROJECT_VERSION_MAJOR})
set(package_development libqelnetworkkit-dev)
set(package_tools qelnetworkkit-tools)
set(components library development)
if(QELNK_BUILD_TOOLS)
  list(APPEND components tools)
endif()
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT licence)
foreach(component ${components})
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package_${component}} RENAME copyright
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

if(PROJECT_IS_TOP_LEVEL)
  include(QELNKPackages)
endif()
