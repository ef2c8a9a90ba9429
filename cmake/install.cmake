# Installation. `cmake --install` puts the plug-in in a plug-in folder
# (lib/zarvo/plugins), the host and client libraries and the contract headers
# where a compiler finds them, with a CMake package config (ZarvoTethrix), the
# two programs in bin, and the documents and examples in share/doc. The
# components are the Debian packages of packaging.cmake: runtime, service and
# dev.

# Debian keeps libraries in lib/<multiarch triplet> under every prefix, and
# ld.so searches /usr/local/lib/<triplet> too, so an install tree and the
# packages share one layout.
if(CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries (LIBDIR)")
endif()
set(CMAKE_INSTALL_DOCDIR "share/doc/zarvo-tethrix" CACHE PATH "Documentation root (DOCDIR)")
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# zarvo-host looks for the plug-in here, relative to its own folder.
set(ZARVO_INSTALL_PLUGINDIR "lib/zarvo/plugins")
set(ZARVO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ZarvoTethrix")
set(ZARVO_INSTALL_DATADIR "${CMAKE_INSTALL_DATADIR}/zarvo-tethrix")
set(ZARVO_SERVICE_DOCDIR "${CMAKE_INSTALL_DATADIR}/doc/tethrix-service")

# Programs and libraries find ours relative to where they lie, so an install
# tree works wherever it is put; $ORIGIN is also what Debian allows.
file(RELATIVE_PATH bin_to_lib "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
file(RELATIVE_PATH plugin_to_lib "/${ZARVO_INSTALL_PLUGINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
set_target_properties(zarvo_contract PROPERTIES EXPORT_NAME contract)
set_target_properties(zarvo_host zarvo_client PROPERTIES
  VERSION "${PROJECT_VERSION}" SOVERSION "${PROJECT_VERSION_MAJOR}" INSTALL_RPATH "$ORIGIN")
set_target_properties(zarvo_host PROPERTIES EXPORT_NAME host)
set_target_properties(zarvo_client PROPERTIES EXPORT_NAME client)
set_target_properties(zarvo_tethrix_datasource PROPERTIES INSTALL_RPATH "$ORIGIN/${plugin_to_lib}")
set_target_properties(zarvo-host PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")

install(TARGETS zarvo_contract zarvo_host zarvo_client EXPORT ZarvoTethrixTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY platform/include/zarvo DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT dev)
install(DIRECTORY platform/host/include/zarvo DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT dev)
install(EXPORT ZarvoTethrixTargets NAMESPACE ZarvoTethrix:: DESTINATION "${ZARVO_INSTALL_CMAKEDIR}"
  COMPONENT dev)
configure_package_config_file(cmake/ZarvoTethrixConfig.cmake.in
  "${CMAKE_BINARY_DIR}/cmake/ZarvoTethrixConfig.cmake"
  INSTALL_DESTINATION "${ZARVO_INSTALL_CMAKEDIR}" PATH_VARS ZARVO_INSTALL_PLUGINDIR)
write_basic_package_version_file("${CMAKE_BINARY_DIR}/cmake/ZarvoTethrixConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_BINARY_DIR}/cmake/ZarvoTethrixConfig.cmake"
  "${CMAKE_BINARY_DIR}/cmake/ZarvoTethrixConfigVersion.cmake"
  DESTINATION "${ZARVO_INSTALL_CMAKEDIR}" COMPONENT dev)

install(TARGETS zarvo_tethrix_datasource LIBRARY DESTINATION "${ZARVO_INSTALL_PLUGINDIR}" COMPONENT runtime)
install(TARGETS zarvo-host RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
install(FILES README.md docs/commands.md docs/configuration.md docs/protocol.md docs/runtime-data.md
  DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT runtime)
install(FILES examples/media.xml examples/player.xml DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples"
  COMPONENT runtime)
install(PROGRAMS examples/generate-media-library DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples"
  COMPONENT runtime)
# The inspector page is served from here once the project has one.
if(EXISTS "${CMAKE_SOURCE_DIR}/inspector")
  install(DIRECTORY inspector/ DESTINATION "${ZARVO_INSTALL_DATADIR}/inspector" COMPONENT runtime)
endif()

install(TARGETS tethrix-service RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT service)
install(FILES docs/service.md DESTINATION "${ZARVO_SERVICE_DOCDIR}" COMPONENT service)
install(CODE "set(ZARVO_PACKAGING_DIR \"${CMAKE_SOURCE_DIR}/packaging\")
set(ZARVO_INSTALL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
set(ZARVO_SERVICE_DOCDIR \"${ZARVO_SERVICE_DOCDIR}\")" COMPONENT service)
install(SCRIPT cmake/install_service_files.cmake COMPONENT service)

# Each package's folder in share/doc holds its copyright and changelog.
foreach(component_package runtime:zarvo-tethrix service:tethrix-service dev:zarvo-tethrix-dev)
  string(REPLACE ":" ";" component_package "${component_package}")
  list(GET component_package 0 component)
  list(GET component_package 1 DEBIAN_PACKAGE)
  set(changelog "${CMAKE_BINARY_DIR}/packaging/${DEBIAN_PACKAGE}/changelog")
  configure_file(packaging/debian/changelog.in "${changelog}" @ONLY)
  execute_process(COMMAND gzip -9nf "${changelog}" COMMAND_ERROR_IS_FATAL ANY)
  install(FILES packaging/debian/copyright "${changelog}.gz"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${DEBIAN_PACKAGE}" COMPONENT ${component})
endforeach()
