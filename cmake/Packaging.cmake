# Installation and the Debian package: "cpack -G DEB" in a build directory (scripts/package
# does the whole Release build). The package carries the server, the command-line client, the
# service unit with its options file, and the pure-Python client with its recorder.
include(GNUInstallDirs)

install(TARGETS vr480d vr480-cli RUNTIME DESTINATION bin)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/vr480d.service DESTINATION /lib/systemd/system)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/vr480d.default DESTINATION /etc/default RENAME vr480d)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/clients/python/vr480 DESTINATION lib/python3/dist-packages
        FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
install(PROGRAMS ${CMAKE_SOURCE_DIR}/packaging/vr480-record DESTINATION bin)

set(CPACK_PACKAGE_NAME vr480d)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "vr480d maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Instrument server of the vr480 fibre-optic sensing interrogator")
set(CPACK_PACKAGE_DESCRIPTION "The vr480d server drives the interrogator's acquisition card (or a simulated card where there is none) and serves its commands and data over TCP. Also the vr480-cli command-line client, the Python client (module vr480) and its recorder vr480-record, and a service unit.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
# Files under /etc are the administrator's: an upgrade keeps an edited options file.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/default/vr480d\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_GENERATOR DEB)
include(CPack)
