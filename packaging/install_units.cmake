# Runs at install time: writes the units with the programs' installed paths
# and puts them where systemd looks for that prefix (/lib/systemd/system and
# /etc for the prefix /usr, else under the prefix), with the bridge's options
# file. Given VELTO_UNITS, VELTO_SOURCE_DIR and VELTO_PKG_DIR.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(VELTO_UNIT_DIR /lib/systemd/system)
  set(VELTO_SYSCONFDIR /etc)
else()
  set(VELTO_UNIT_DIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
  set(VELTO_SYSCONFDIR ${CMAKE_INSTALL_PREFIX}/etc)
endif()
set(VELTO_SBINDIR ${CMAKE_INSTALL_PREFIX}/sbin)
set(VELTO_BINDIR ${CMAKE_INSTALL_PREFIX}/bin)

foreach(unit ${VELTO_UNITS})
  configure_file(${VELTO_SOURCE_DIR}/packaging/systemd/${unit}.service.in
                 ${VELTO_PKG_DIR}/units/${unit}.service @ONLY)
  file(INSTALL ${VELTO_PKG_DIR}/units/${unit}.service DESTINATION ${VELTO_UNIT_DIR})
endforeach()
list(FIND VELTO_UNITS velto-mqtt VELTO_MQTT_AT)
if(VELTO_MQTT_AT GREATER -1)
  file(INSTALL ${VELTO_SOURCE_DIR}/packaging/velto-mqtt.env DESTINATION ${VELTO_SYSCONFDIR}/velto)
endif()
