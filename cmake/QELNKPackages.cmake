# Debian's packages, by CPack: scripts/package.sh builds them. Each is one component of the installation.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qelnetworkkit)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "the QELNetworkKit authors")
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "the QELNetworkKit authors <authors@qelnetworkkit.invalid>")
# Depends on what the linked libraries say of themselves, and between the components on the very same version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# For packages of programs that are linked with the library. CPack has the loader's cache renewed by itself.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(about "Messaging over ZeroMQ with value trees in MessagePack, JSON, XML, text or
bytes, control of a local processing daemon, the legacy stream protocol,
service discovery, WebSockets and network utilities.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${package_library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS avahi-daemon)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "networking for desktop broadcast and media applications\n${about}")

set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers include ZeroMQ's; either way of finding the library asks pkg-config.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libzmq3-dev, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "networking for broadcast applications: development files
${about}

This package has the headers, and the files for CMake and pkg-config.")

set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${package_tools})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "networking for broadcast applications: command-line tools
${about}

This package has qelnk, which sends and shows what goes over the wire, and
orlin-sim, a simulated processing daemon to develop against.")

include(CPack)
