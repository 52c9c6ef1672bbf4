# cmake --install, and a .deb through CPack: the daemon, its unit and its bus policy.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvupgrademng)
set(CPACK_PACKAGE_VENDOR "QVUpgradeMng maintainers")
set(CPACK_PACKAGE_CONTACT "QVUpgradeMng maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Firmware upgrade manager of a wireless-intercom base station")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The programs that the daemon runs.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "p7zip-full, tar, unzip, e2fsprogs, mount, util-linux, procps, time, kmod, systemd, systemd-sysv, dbus, passwd, ca-certificates")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_LIST_DIR}/postinst;${CMAKE_CURRENT_LIST_DIR}/prerm")
include(CPack)

configure_file(${CMAKE_CURRENT_LIST_DIR}/QVUpgradeMng.service.in ${CMAKE_CURRENT_BINARY_DIR}/QVUpgradeMng.service @ONLY)
install(TARGETS QVUpgradeMng RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QVUpgradeMng.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/org.Upgread.server.conf DESTINATION share/dbus-1/system.d)
