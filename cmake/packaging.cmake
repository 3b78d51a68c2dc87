# Debian packages: `cpack -G DEB` in the build tree makes
#   libvepra1     the shared library with its SONAME link (component library)
#   libvepra-dev  headers, the unversioned link, vepra.pc, the CMake package
#   vepra-tools   the programs and their manual pages
# Each package also carries the Debian copyright and changelog files, which
# a plain `cmake --install` leaves out (they are component-only rules).

set(VEPRA_DEB_MAINTAINER "The vepra authors <vepra@example.org>")
set(VEPRA_DEB_REVISION 1)

# Debian's per-package documentation: the licence and a changelog whose
# date comes from SOURCE_DATE_EPOCH when set, so rebuilds are identical.
string(TIMESTAMP _deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(_deb_doc ${PROJECT_BINARY_DIR}/debian-doc)
file(WRITE ${_deb_doc}/changelog.Debian
"vepra (${PROJECT_VERSION}-${VEPRA_DEB_REVISION}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}.

 -- ${VEPRA_DEB_MAINTAINER}  ${_deb_date}
")
execute_process(COMMAND gzip -9nf ${_deb_doc}/changelog.Debian)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE _license)
string(REGEX REPLACE "\n\n" "\n.\n" _license_body "${_license}")
string(REGEX REPLACE "\n" "\n " _license_body "${_license_body}")
file(WRITE ${_deb_doc}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: vepra

Files: *
Copyright: 2026 The vepra authors
License: Expat
 ${_license_body}
")
foreach(pair library:libvepra1 dev:libvepra-dev tools:vepra-tools)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 _comp)
  list(GET pair 1 _pkg)
  install(FILES ${_deb_doc}/copyright ${_deb_doc}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_pkg}
          COMPONENT ${_comp} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_PACKAGE_NAME vepra)
set(CPACK_PACKAGE_VENDOR "The vepra authors")
set(CPACK_PACKAGE_CONTACT "${VEPRA_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_HOMEPAGE_URL "https://example.org/vepra")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VEPRA_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The programs link libvepra.so.1 of this build tree, not an installed one;
# their dependency on libvepra1 comes from the component dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvepra1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(_about "vepra is a C library (written in C++20 on the Apache Portable Runtime) of
error chains, containers, strings and text, an object engine with signals
and slots, and grayscale TIFF images with their measures.")
# Descriptions: the first line is the synopsis; CPack indents the rest and
# turns empty lines into " .".
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
"utility library for scientific and imaging applications
${_about}

This package holds the shared library.")
# The library registers with ldconfig through a trigger.
file(WRITE ${_deb_doc}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${_deb_doc}/triggers)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvepra-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS library)
# The headers include APR's (and vepra_obj.h uthash's utarray.h);
# vepra.pc requires apr-1 and apr-util-1, and the CMake package finds APR
# through pkg-config.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libapr1-dev, libaprutil1-dev, uthash-dev, pkgconf | pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"utility library for scientific and imaging applications (development files)
${_about}

This package holds the headers, the pkg-config file and the CMake package.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vepra-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"programs of the vepra library for scans and machines
vepra-image looks at grayscale TIFF scans and measures them (information,
statistics, regions, data mask, PSL, optical density) one file or a whole
folder at a time; vepra-sysinfo reports the machine and its processor.")

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/strip_runpath.cmake)

include(CPack)
