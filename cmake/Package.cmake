# What is installed beside program, libraries and modules, and the Debian package of all of it.
#
# In the package everything of ours lies in one folder, with the same sub-folders as the build tree, and
# only what the system looks for lies outside. Files below /etc are the administrator's.
install(DIRECTORY policies/ DESTINATION /etc/vmescape/policies FILES_MATCHING PATTERN "*.json")
install(FILES packaging/agent.json DESTINATION /etc/vmescape)

# The unit names the program where it really is, which only the installation knows.
install(CODE "
    set(VMESCAPE_AGENT \${CMAKE_INSTALL_PREFIX}/bin/vmescape-agent)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/vmescape-agent.service.in
        \$ENV{DESTDIR}/lib/systemd/system/vmescape-agent.service @ONLY)")

find_program(GZIP gzip REQUIRED)
foreach(text changelog vmescape-agent.8 vmescape-policy.5)
    execute_process(COMMAND ${GZIP} -9cn ${PROJECT_SOURCE_DIR}/packaging/${text}
        OUTPUT_FILE ${PROJECT_BINARY_DIR}/${text}.gz COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/${text})
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/vmescape-agent.8.gz DESTINATION /usr/share/man/man8)
install(FILES ${PROJECT_BINARY_DIR}/vmescape-policy.5.gz DESTINATION /usr/share/man/man5)
install(FILES ${PROJECT_BINARY_DIR}/changelog.gz packaging/copyright
    packaging/prometheus-alerts.yml packaging/grafana-dashboard.json
    packaging/README.Debian docs/quickstart.md docs/agent.md docs/policies.md docs/alarms.md
    docs/detection.md docs/metrics.md docs/outputs.md docs/recording.md docs/security.md
    docs/troubleshooting.md docs/tuning.md docs/benchmarks.md
    DESTINATION /usr/share/doc/vmescape-agent)
install(FILES packaging/completion.bash RENAME vmescape-agent
    DESTINATION /usr/share/bash-completion/completions)
install(FILES packaging/lintian-overrides RENAME vmescape-agent
    DESTINATION /usr/share/lintian/overrides)
install(FILES packaging/logrotate RENAME vmescape-agent DESTINATION /etc/logrotate.d)
install(DIRECTORY DESTINATION /var/log/vmescape)
install(CODE "
    file(MAKE_DIRECTORY \$ENV{DESTDIR}/usr/bin)
    file(RELATIVE_PATH program /usr/bin \${CMAKE_INSTALL_PREFIX}/bin/vmescape-agent)
    file(CREATE_LINK \${program} \$ENV{DESTDIR}/usr/bin/vmescape-agent SYMBOLIC)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vmescape-agent)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Whoever builds the package for others says who they are. The default is an address that can never be
# anybody's (RFC 2606).
set(VMESCAPE_MAINTAINER "The vmescape developers <vmescape@vmescape.invalid>" CACHE STRING
    "Who maintains the Debian package, with an address")
set(CPACK_PACKAGE_CONTACT "${VMESCAPE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Notices when a guest breaks out of its virtual machine")
set(CPACK_PACKAGE_DESCRIPTION "\
Watches QEMU processes and everything that they start: the commands they run,
the sensitive files they touch and the ports they hold. What a policy does not
allow becomes an alarm in JSON that names the virtual machine.")
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr/lib/vmescape)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qemu-system-x86, logrotate")
foreach(script conffiles postinst prerm postrm)
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/${script})
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
