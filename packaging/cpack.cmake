# The Debian package (cpack -G DEB in a build directory): dependencies from the
# binaries, adduser for the system user, maintainer scripts that enable the
# hub's unit and start it where systemd runs, /etc/velto as conffiles, purge
# removing the state. Needs packaging/install.cmake first.
set(CPACK_PACKAGE_NAME velto)
set(CPACK_PACKAGE_VERSION 1.0.0)
set(CPACK_PACKAGE_VENDOR "Velto developers")
set(CPACK_PACKAGE_CONTACT "Velto developers <velto@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "home-automation hub for Velto devices")
# Installed with DESTDIR and the prefix /usr, so that the units and /etc files
# land where Debian wants them (packaging/install_units.cmake).
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "The Velto hub adopts the devices of a home network (sensors, switches,
appliances) over a UDP datagram protocol, keeps a record of each, and
relays messages and notifications between them. It runs as the systemd
service velto-hub under its own system user. The package also holds the
device simulator velto-device and, where built, the bridge and tools.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

set(VELTO_CONFFILES "")
if(TARGET velto-mqtt)
  string(APPEND VELTO_CONFFILES "/etc/velto/velto-mqtt.env\n")
endif()
set(VELTO_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
  ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
  ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
if(VELTO_CONFFILES)
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "${VELTO_CONFFILES}")
  list(APPEND VELTO_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${VELTO_CONTROL_EXTRA}")

set(CPACK_GENERATOR DEB)
include(CPack)
