# Install rules: the programs, the service units and the system user, the man
# pages (gzipped, as Debian wants them), the example documents and, where they
# exist, the bridge, the link tool and the dissector. Paths are relative to the
# prefix given at install time (the package's is /usr; stage with
# DESTDIR=DIR cmake --install build --prefix /usr); packaging/install_units.cmake
# places the units and /etc files for that prefix.
include(GNUInstallDirs)
set(VELTO_DOC_DIR "${CMAKE_INSTALL_DATADIR}/doc/velto")
set(VELTO_PKG_DIR "${CMAKE_BINARY_DIR}/packaging")

install(TARGETS velto-hub RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS velto-device RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(tool velto-link velto-mqtt)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The bridge's unit and options file only with the bridge.
set(VELTO_UNITS velto-hub)
if(TARGET velto-mqtt)
  list(APPEND VELTO_UNITS velto-mqtt)
endif()
install(CODE "set(VELTO_UNITS \"${VELTO_UNITS}\")
  set(VELTO_SOURCE_DIR \"${CMAKE_SOURCE_DIR}\")
  set(VELTO_PKG_DIR \"${VELTO_PKG_DIR}\")
  include(\"${CMAKE_SOURCE_DIR}/packaging/install_units.cmake\")")
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/velto.sysusers DESTINATION lib/sysusers.d RENAME velto.conf)

# Every page in packaging/man, gzipped without name or time stamp.
file(GLOB VELTO_MAN_PAGES ${CMAKE_SOURCE_DIR}/packaging/man/*.1 ${CMAKE_SOURCE_DIR}/packaging/man/*.8)
set(VELTO_GZIPPED)
foreach(page ${VELTO_MAN_PAGES})
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${name})
  set(gz ${VELTO_PKG_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${gz} COMMAND ${CMAKE_COMMAND} -E make_directory ${VELTO_PKG_DIR}/man
                     COMMAND gzip -9n -c ${page} > ${gz} DEPENDS ${page} VERBATIM)
  list(APPEND VELTO_GZIPPED ${gz})
  install(FILES ${gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
set(VELTO_CHANGELOG_GZ ${VELTO_PKG_DIR}/changelog.gz)
add_custom_command(OUTPUT ${VELTO_CHANGELOG_GZ}
                   COMMAND gzip -9n -c ${CMAKE_SOURCE_DIR}/packaging/debian/changelog > ${VELTO_CHANGELOG_GZ}
                   DEPENDS ${CMAKE_SOURCE_DIR}/packaging/debian/changelog VERBATIM)
add_custom_target(velto-docs ALL DEPENDS ${VELTO_GZIPPED} ${VELTO_CHANGELOG_GZ})

install(FILES ${CMAKE_SOURCE_DIR}/packaging/debian/copyright ${VELTO_CHANGELOG_GZ} DESTINATION ${VELTO_DOC_DIR})
file(GLOB VELTO_EXAMPLES ${CMAKE_SOURCE_DIR}/examples/*.cpp ${CMAKE_SOURCE_DIR}/examples/*.xml
     ${CMAKE_SOURCE_DIR}/examples/*.spec ${CMAKE_SOURCE_DIR}/examples/*.intf)
install(FILES ${VELTO_EXAMPLES} DESTINATION ${VELTO_DOC_DIR}/examples)

# Debian's global plugin folder of the packet analyser (with the prefix /usr).
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/wireshark/velto.lua)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(VELTO_PLUGIN_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
  else()
    set(VELTO_PLUGIN_LIBDIR ${CMAKE_INSTALL_LIBDIR})
  endif()
  install(FILES ${CMAKE_SOURCE_DIR}/tools/wireshark/velto.lua DESTINATION ${VELTO_PLUGIN_LIBDIR}/wireshark/plugins)
endif()
