# Installation beyond the programs (each app installs its own binary) and the Debian package.
#
#   cmake --install build/dev --prefix /usr/local
#   cpack --config build/dev/CPackConfig.cmake -B /tmp/kestrix-package   (kestrix_5.0.0-1_amd64.deb)

set(KESTRIX_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR}/../packaging)
set(KESTRIX_INSTALL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/kestrix)
# The package's own revision, after the program's version: 5.0.0-1.
set(KESTRIX_DEBIAN_REVISION 1)

# Debian wants the copyright beside the documentation and the changelog compressed, without a
# time stamp in the gzip header (so the package is the same whenever it is built).
find_program(KESTRIX_GZIP gzip)
install(FILES ${KESTRIX_PACKAGING_DIR}/copyright DESTINATION ${KESTRIX_INSTALL_DOCDIR})
if(KESTRIX_GZIP)
  set(changelog ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
  add_custom_command(
    OUTPUT ${changelog}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
    COMMAND sh -c "${KESTRIX_GZIP} -9n -c '${KESTRIX_PACKAGING_DIR}/changelog' > '${changelog}'"
    DEPENDS ${KESTRIX_PACKAGING_DIR}/changelog
    VERBATIM)
  set(KESTRIX_PACKAGE_FILES ${changelog})
  install(FILES ${changelog} DESTINATION ${KESTRIX_INSTALL_DOCDIR})
endif()

# Manual pages, made from each program's --help and --version by help2man.
find_program(KESTRIX_HELP2MAN help2man)
if(KESTRIX_HELP2MAN AND KESTRIX_GZIP)
  set(kestrix_man_kestrix "the device engine of unattended payment kiosks, with its console")
  set(kestrix_man_kestrix-sim "a simulated kiosk on pseudo-terminals")
  set(kestrix_man_ksxctl "read and write the Kestrix settings store; take payments from scripts")
  set(kestrix_man_kestrix-headless "the device engine without its console, as kestrix --headless runs")
  foreach(program kestrix kestrix-headless kestrix-sim ksxctl)
    if(NOT TARGET ${program})
      continue()
    endif()
    set(page ${CMAKE_BINARY_DIR}/packaging/${program}.1.gz)
    add_custom_command(
      OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
      COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
              ${KESTRIX_HELP2MAN} --no-info --no-discard-stderr --section=1
              "--name=${kestrix_man_${program}}" --output=${CMAKE_BINARY_DIR}/packaging/${program}.1
              $<TARGET_FILE:${program}>
      COMMAND sh -c "${KESTRIX_GZIP} -9n -f '${CMAKE_BINARY_DIR}/packaging/${program}.1'"
      DEPENDS ${program}
      COMMENT "Manual page of ${program}"
      VERBATIM)
    list(APPEND KESTRIX_PACKAGE_FILES ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()
else()
  message(STATUS "help2man or gzip not found: no manual pages")
endif()
# Built with the rest (`make test`); `make run` builds only the programs.
add_custom_target(package_files ALL DEPENDS ${KESTRIX_PACKAGE_FILES})

install(FILES ${KESTRIX_PACKAGING_DIR}/completion/ksxctl ${KESTRIX_PACKAGING_DIR}/completion/kestrix-sim
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

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
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KESTRIX_DEBIAN_REVISION})
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
