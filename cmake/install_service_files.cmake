# Installs tethrix-service's systemd unit and its configuration file. A
# system install (prefix /usr, as the Debian package is) puts them where
# systemd and the administrator look, /lib/systemd/system and /etc; any other
# prefix keeps them under itself. Run by `cmake --install` with
# ZARVO_PACKAGING_DIR, ZARVO_INSTALL_BINDIR and ZARVO_SERVICE_DOCDIR set.

if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(unit_dir "/lib/systemd/system")
  set(conf_dir "/etc")
else()
  set(unit_dir "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
  set(conf_dir "${CMAKE_INSTALL_PREFIX}/etc")
endif()
set(TETHRIX_SERVICE_PROGRAM "${CMAKE_INSTALL_PREFIX}/${ZARVO_INSTALL_BINDIR}/tethrix-service")
set(TETHRIX_SERVICE_CONF "${conf_dir}/tethrix-service.conf")
set(TETHRIX_SERVICE_DOC "${CMAKE_INSTALL_PREFIX}/${ZARVO_SERVICE_DOCDIR}/service.md")

file(READ "${ZARVO_PACKAGING_DIR}/tethrix-service.service.in" unit)
string(CONFIGURE "${unit}" unit @ONLY)
set(unit_file "$ENV{DESTDIR}${unit_dir}/tethrix-service.service")
message(STATUS "Installing: ${unit_file}")
file(WRITE "${unit_file}" "${unit}")
message(STATUS "Installing: $ENV{DESTDIR}${TETHRIX_SERVICE_CONF}")
file(COPY "${ZARVO_PACKAGING_DIR}/tethrix-service.conf" DESTINATION "$ENV{DESTDIR}${conf_dir}"
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(CHMOD "${unit_file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
