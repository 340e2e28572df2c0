# Installation beyond the programs (each app installs its own binary) and the Debian package.
#
#   cmake --install build/dev --prefix /usr/local
#   cpack --config build/dev/CPackConfig.cmake -B /tmp/kestrix-package     (kestrix_5.0.0_amd64.deb)

set(KESTRIX_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR}/../packaging)
set(KESTRIX_INSTALL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/kestrix)

install(FILES ${KESTRIX_PACKAGING_DIR}/kestrix.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${KESTRIX_PACKAGING_DIR}/kestrix.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/host-integration.md
              ${CMAKE_SOURCE_DIR}/docs/operations.md ${CMAKE_SOURCE_DIR}/docs/pin-pad-library.md
        DESTINATION ${KESTRIX_INSTALL_DOCDIR})

# The systemd user unit names the engine by its installed path. That path is only known when
# installing (cpack installs under /usr, `cmake --install --prefix` wherever it is told), so the
# unit is written then.
install(CODE "
  set(KESTRIX_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(KESTRIX_DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${KESTRIX_INSTALL_DOCDIR}\")
  set(unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/user/kestrix.service\")
  message(STATUS \"Installing: \${unit}\")
  configure_file(\"${KESTRIX_PACKAGING_DIR}/kestrix.service.in\" \"\${unit}\" @ONLY)
")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Kestrix")
set(CPACK_PACKAGE_CONTACT "Kestrix developers <kestrix@example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "device engine of unattended payment kiosks")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Qt, SQLite and the C++ runtime come from what the programs link.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Vouchers ask for "Courier New"; Liberation Mono has its metrics.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-liberation")
# The summary is the first line of the package's description; CPack indents the rest.
set(CPACK_PACKAGE_DESCRIPTION
    "Kestrix drives a kiosk's money hardware (an MDB coin changer and bill
validator, a bill dispenser, two ccTalk coin hoppers and a card pin pad)
for a host program that talks to it through a shared settings store.

The package holds the engine with its operator console (kestrix), the
simulated kiosk (kestrix-sim), the store's command-line tool for hosts
(ksxctl), a systemd user unit for service mode and the guides for host
integrators and operators.")
include(CPack)
