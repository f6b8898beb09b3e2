# Debian packages, one per install component:
#   libostrelled1     runtime: the shared library (shlibs, ldconfig trigger)
#   libostrelled-dev  dev: headers, the .so link, the CMake package, ostrelled.pc
#   ostrelled-tools   tools: the daemon, ostrelled-ctl, the unit, the account file,
#                     the manual pages
# Each carries its copyright file and Debian changelog. Built by `cpack` in a
# build tree; scripts/check_packages.sh builds and checks them.
set(OSTRELLED_PACKAGES runtime libostrelled1 dev libostrelled-dev tools ostrelled-tools)

# Per-package documents, under share/doc/<package> as Debian wants them.
include(${PROJECT_SOURCE_DIR}/cmake/Compressed.cmake)
set(packages ${OSTRELLED_PACKAGES})
while(packages)
  list(POP_FRONT packages component package)
  set(changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/${package}/changelog.Debian)
  set(PACKAGE ${package})
  set(VERSION ${PROJECT_VERSION})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.Debian.in ${changelog} @ONLY)
  ostrelled_install_compressed(${changelog} ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endwhile()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ostrelled)
set(CPACK_PACKAGE_VENDOR "Ostrelled developers")
set(CPACK_PACKAGE_CONTACT "Ostrelled developers <ostrelled@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libostrelled1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Ostrelled library: data types and an OS layer for real-time software
Self-describing data types (counted strings, variants with conversion,
safe arrays, reference-counted read/write interfaces) and a portable
operating-system layer: clocks, threads, shared memory, named
cross-process mutexes, reader/writer mutexes, semaphores and events,
files, folders, processes, serial ports and sockets.")
# The shlibs file is written here rather than by CPack, whose version would
# come with maintainer scripts that call ldconfig; the trigger does that.
set(SOVERSION ${PROJECT_VERSION_MAJOR})
configure_file(${PROJECT_SOURCE_DIR}/packaging/shlibs.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/shlibs @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers
  ${PROJECT_SOURCE_DIR}/packaging/runtime/postinst ${PROJECT_SOURCE_DIR}/packaging/runtime/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libostrelled-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The exact Debian version, release included, or the two will not install together.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libostrelled1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Ostrelled library: development files
Headers, the CMake package, the pkg-config file and the link to the shared
library, for building programs against Ostrelled.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ostrelled-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Ostrelled sync manager daemon and inspection tool
ostrelled-syncd hosts the machine's sync manager, which named Ostrelled objects
need, as a systemd notify service under its own system account; ostrelled-ctl
shows which named objects exist, who uses them, and removes stale ones.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/postinst)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
