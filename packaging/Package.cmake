# The manual pages, the bash completion and the Debian package (scripts/package builds it).

# Each page has one source, in scdoc's markup, turned into roff (and compressed, as Debian
# keeps manual pages) at build time.
find_program(SCDOC scdoc REQUIRED)
find_program(GZIP gzip REQUIRED)
set(VELNOR_MAN_PAGES velnor.1 velnord.8)
set(VELNOR_MAN_OUTPUTS)
foreach(page ${VELNOR_MAN_PAGES})
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/doc/${page}.scd)
  set(output ${CMAKE_CURRENT_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
    COMMAND sh -c "${SCDOC} < '${source}' | ${GZIP} -9n > '${output}'"
    DEPENDS ${source} VERBATIM)
  list(APPEND VELNOR_MAN_OUTPUTS ${output})
  string(REGEX REPLACE ".*\\." "" section ${page})
  install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(manpages ALL DEPENDS ${VELNOR_MAN_OUTPUTS})

install(FILES packaging/velnor.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME velnor)

# The polkit actions that velnord asks about for every account but root, and an example rule,
# not enabled, that grants one of them to a group.
install(FILES packaging/polkit/org.velnor.postgres.policy
        DESTINATION ${CMAKE_INSTALL_DATADIR}/polkit-1/actions)
install(FILES packaging/polkit/50-velnor-postgres-operators.rules
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velnor-postgres/examples)

# Debian wants its own copyright file and a compressed changelog in the package's doc folder;
# a package built from its own tree (no Debian revision) calls it changelog.gz.
configure_file(packaging/changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
  COMMAND sh -c "${GZIP} -9n < changelog > changelog.gz"
  DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} VERBATIM)
add_custom_target(debian_changelog ALL DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
install(FILES packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velnor-postgres)
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME velnor-postgres)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velnor-postgres)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "velnor-postgres developers <velnor-postgres@velnor.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "host and service plug-in that administer the PostgreSQL server")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "velnor loads the service plug-in and reports the state of the machine's\n\
PostgreSQL server, starts, stops and restarts it, reads and writes its\n\
settings, sets up its data folder and keeps its socket and log folders in\n\
place. velnord serves the same calls as a daemon under systemd.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# polkitd decides what accounts other than root may ask of velnord; without it only root is served.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "postgresql-15, polkitd")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The library's folder changes, so the linker's cache is refreshed once the package is in;
# the console's PAM service is the administrator's to change, and kept on upgrade.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/packaging/triggers
                                       ${CMAKE_CURRENT_SOURCE_DIR}/packaging/conffiles)
include(CPack)
