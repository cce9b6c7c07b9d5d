# The Debian package: `cpack -G DEB` in a build directory writes
# kzq_<version>_<arch>.deb from the install rules' components kzq and deb
# (cmake/posix-install.cmake), with the maintainer scripts of packaging/deb.
# `make package` does it from an optimised build in build-package/.
set(KZQ_DEB_MAINTAINER "kzq developers <kzq-dev@example.org>" CACHE STRING "Maintainer of the Debian package")

# The package's version is the project's: the changelog's newest entry must say the same.
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/deb/changelog changelog_top LIMIT_COUNT 1)
if(NOT changelog_top MATCHES "^kzq \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/deb/changelog begins with '${changelog_top}', not version ${PROJECT_VERSION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kzq)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KZQ_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "monitoring agent for Microsoft SQL Server")
# The long description, below the summary; cpack indents it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "One agent (kzqagent) and one collector (kzqcoll) run per SQL Server
instance, as systemd template units. The agent publishes the server's state
as tables, Prometheus metrics and errorlog events over HTTP; kzqctl reads
them.

The package ships an example configuration, Prometheus alerting rules and a
Grafana dashboard. No service is started on installation.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The shared libraries' packages, found by dpkg-shlibdeps; useradd for the account, kill for a reload.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd, procps")
# The ODBC driver the collector reads SQL Server through.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "tdsodbc")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/deb/postinst
  ${PROJECT_SOURCE_DIR}/packaging/deb/prerm ${PROJECT_SOURCE_DIR}/packaging/deb/postrm
  ${PROJECT_SOURCE_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
# Below /usr; the /etc and /lib paths land in the package as they are.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# One package from the two components.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL kzq deb)
include(CPack)
