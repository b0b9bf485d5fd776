# Installation and the Debian package. Product executables and man pages go to the
# usual places under the prefix; the server of the product installation is a
# system daemon (sbin), while the test-installation server stays in bin beside
# zel-local, which looks for it there.
include(GNUInstallDirs)

set(ZEL_USER_PROGRAMS kxzel kxzel-testinstall zel-local)
if(TARGET zeld-testinstall)
  list(APPEND ZEL_USER_PROGRAMS zeld-testinstall)
  install(TARGETS zeld RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
install(TARGETS ${ZEL_USER_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Man pages carry the version; they are filled in at configure time.
foreach(page kxzel.1 zel-local.1 zeld.8)
  configure_file(${CMAKE_SOURCE_DIR}/docs/man/${page} ${CMAKE_BINARY_DIR}/man/${page} @ONLY)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${CMAKE_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
# The test-installation executables share their product's page.
install(FILES ${CMAKE_SOURCE_DIR}/docs/man/kxzel-testinstall.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/docs/man/zeld-testinstall.8
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

# bash-completion loads a command's completion by the command's name.
foreach(cmd kxzel kxzel-testinstall)
  install(FILES ${CMAKE_SOURCE_DIR}/docs/completion/kxzel.bash
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${cmd})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kxzel)
set(CPACK_PACKAGE_VENDOR "kxzel project")
set(CPACK_PACKAGE_CONTACT "kxzel maintainers <kxzel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "client, server and local-repository tool of the zel replicated repository")
set(CPACK_PACKAGE_DESCRIPTION
    "kxzel stores named values and named files in a zel repository, which zeld servers keep replicated on quorum nodes and tiebreaker disks; zel-local runs a whole repository on one machine.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
# The C++ runtime is linked in; the TLS libraries are loaded only when
# authentication is on.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libssl3")
include(CPack)
