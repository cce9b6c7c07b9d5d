# Where `cmake --install` and the Debian package put things. One layout
# below the prefix (/usr for the package, any other for a tree to run from):
#   bin/            kzqagent, kzqcoll, kzqctl
#   libexec/kzq/    kyresql.cmd, which take-action commands find through COLL_BINPATH
#   share/kzq/      the Prometheus alerts, the Grafana dashboard, the demo's replay rows
#   share/doc/kzq/  README.md
#   share/man/man1/ the programs' manual pages
# Three components:
#   kzq   the files above, in both;
#   tree  a plain install only: the systemd units and example.conf in share/kzq/;
#   deb   the package only (left out of a plain install, which must never
#         write to the host's /etc or /lib): the units in /lib/systemd/system,
#         /etc/kzq/example.conf, the copyright and changelog.
# The units in packaging/systemd name the package's paths (/usr/bin,
# /usr/libexec/kzq, /usr/share/doc/kzq); installed below another prefix they
# name that prefix's instead.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME kzq)
set(KZQ_UNITS ${PROJECT_SOURCE_DIR}/packaging/systemd/kzqagent@.service
  ${PROJECT_SOURCE_DIR}/packaging/systemd/kzqcoll@.service)

install(TARGETS kzqagent kzqcoll kzqctl RUNTIME DESTINATION bin)
install(PROGRAMS ${KYRESQL_SCRIPT} DESTINATION libexec/kzq)
install(FILES packaging/prometheus/kzq-alerts.yml DESTINATION share/kzq/prometheus)
install(FILES packaging/grafana/kzq-overview.json DESTINATION share/kzq/grafana)
install(DIRECTORY demo/replay/ DESTINATION share/kzq/replay FILES_MATCHING PATTERN "*.jsonl")
install(FILES README.md DESTINATION share/doc/kzq)

install(CODE "set(KZQ_UNITS \"${KZQ_UNITS}\")
  set(KZQ_STAGING \"${CMAKE_BINARY_DIR}/relocated-units\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/install-relocated-units.cmake\")" COMPONENT tree)
install(FILES packaging/config/example.conf DESTINATION share/kzq COMPONENT tree)

install(FILES ${KZQ_UNITS} DESTINATION /lib/systemd/system COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES packaging/config/example.conf DESTINATION /etc/kzq COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES packaging/deb/copyright DESTINATION share/doc/kzq COMPONENT deb EXCLUDE_FROM_ALL)
# The manual pages and the changelog go compressed, without a time stamp
# in the gzip header, as Debian wants them.
set(KZQ_COMPRESSED)
foreach(file man/kzqagent.1 man/kzqcoll.1 man/kzqctl.1 deb/changelog)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${name}.gz
    COMMAND sh -c "gzip -9nc '${PROJECT_SOURCE_DIR}/packaging/${file}' >${name}.gz"
    DEPENDS packaging/${file} VERBATIM)
  list(APPEND KZQ_COMPRESSED ${CMAKE_BINARY_DIR}/${name}.gz)
endforeach()
add_custom_target(kzq_compressed_docs ALL DEPENDS ${KZQ_COMPRESSED})
install(FILES ${CMAKE_BINARY_DIR}/kzqagent.1.gz ${CMAKE_BINARY_DIR}/kzqcoll.1.gz ${CMAKE_BINARY_DIR}/kzqctl.1.gz
  DESTINATION share/man/man1)
install(FILES ${CMAKE_BINARY_DIR}/changelog.gz DESTINATION share/doc/kzq COMPONENT deb EXCLUDE_FROM_ALL)
