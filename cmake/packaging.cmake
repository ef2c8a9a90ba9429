# Debian packages, made by `cpack` in the build folder:
#
#   zarvo-tethrix       the plug-in, the host and client libraries, zarvo-host
#   tethrix-service     the service with its systemd unit and configuration
#   zarvo-tethrix-dev   the contract headers and the CMake package config
#
# Dependencies on Debian's libraries come from dpkg-shlibdeps. A cross build
# makes packages for its target's architecture.

set(ZARVO_PACKAGE_CONTACT "Zarvo Tethrix maintainers <maintainers@zarvo-tethrix.invalid>"
  CACHE STRING "Maintainer of the Debian packages, as Name <address>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zarvo-tethrix)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${ZARVO_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VENDOR "Zarvo Tethrix")
set(CPACK_COMPONENTS_ALL runtime service dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# The unit and the configuration file go to /lib/systemd/system and /etc,
# outside the prefix; see install_service_files.cmake.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)

find_program(DPKG_ARCHITECTURE dpkg-architecture)
if(CMAKE_CROSSCOMPILING AND DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
  execute_process(COMMAND "${DPKG_ARCHITECTURE}" -qDEB_HOST_ARCH -t "${CMAKE_LIBRARY_ARCHITECTURE}"
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
    ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME zarvo-tethrix)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Tethrix data source plug-in for the Zarvo UI engine
The plug-in adds the resource type ZarvoTethrixDataSource: a data source
whose tree of data objects is filled from the Tethrix service. The package
also holds the host and client libraries it runs against and zarvo-host, a
program that loads the plug-in as the engine does and shows what a data
source holds.")
# Our own libraries sit in the same package; the triggers run ldconfig.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_SOURCE_DIR}/packaging/debian/zarvo-tethrix/triggers")

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME tethrix-service)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
set(CPACK_COMPONENT_SERVICE_DESCRIPTION "Tethrix content and runtime data service
tethrix-service serves the tables of an SQLite database as content, runtime
data trees with live updates, and the files of a folder, on one port. The
package has a hardened systemd unit that runs the service as a user of its
own with the settings of /etc/tethrix-service.conf.")
set(service_control "${CMAKE_SOURCE_DIR}/packaging/debian/tethrix-service")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
  "${service_control}/conffiles;${service_control}/postinst;${service_control}/prerm;${service_control}/postrm")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME zarvo-tethrix-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost1.81-dev, libtinyxml2-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION "Zarvo and Tethrix contract headers and CMake package config
The headers a Zarvo plug-in is written against, for the engine and the
Tethrix client library, and the CMake package ZarvoTethrix, whose imported
targets ZarvoTethrix::contract, ZarvoTethrix::host and ZarvoTethrix::client
build a plug-in against the libraries of zarvo-tethrix.")

include(CPack)
