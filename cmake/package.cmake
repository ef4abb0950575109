# SPDX-License-Identifier: Apache-2.0
#
# Debian packages: `cpack -G DEB` in a build folder makes the library, its development files and
# varda. Dependencies on other libraries are what dpkg-shlibdeps finds in the binaries.
set(CPACK_PACKAGE_NAME statsubs)
set(CPACK_PACKAGE_CONTACT "the developers of statsubs <statsubs@localhost>")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development)
if(VARDA)
  list(APPEND CPACK_COMPONENTS_ALL varda)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(abi_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
mark_as_advanced(DPKG_SHLIBDEPS)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libstatsubs${abi_version})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "${PROJECT_DESCRIPTION}: shared library")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libstatsubs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libstatsubs${abi_version} (= ${PROJECT_VERSION}), liblapack-dev, libblas-dev")
if(STATSUBS_MPI)
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", libopenmpi-dev")
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: files to build against it")

set(CPACK_DEBIAN_VARDA_PACKAGE_NAME varda)
set(CPACK_COMPONENT_VARDA_DESCRIPTION "Exact maximum likelihood for nonlinear mixed-effects models")
include(CPack)
