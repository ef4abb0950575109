# SPDX-License-Identifier: Apache-2.0
#
# Debian packages: `cpack -G DEB` in a build folder makes the library, its development files, the
# documents and varda. Dependencies on other libraries are what dpkg-shlibdeps finds in the binaries.
set(CPACK_PACKAGE_NAME statsubs)
# Each package has a synopsis of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "statsubs maintainers <maintainers@statsubs.example>"
    CACHE STRING "Who answers for the packages: Name <address>")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development documentation)
if(VARDA)
  list(APPEND CPACK_COMPONENTS_ALL varda)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# description(COMPONENT SYNOPSIS): what stands below it is the same for all.
function(description component synopsis)
  set(CPACK_COMPONENT_${component}_DESCRIPTION
      "${synopsis}
statsubs integrates over the random effects of every subject by importance
sampling with scrambled Sobol points. varda is an estimation engine built on
it: it computes the likelihood of nonlinear mixed-effects models without
linearisation, and states its Monte Carlo error."
      PARENT_SCOPE)
endfunction()
set(abi_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
mark_as_advanced(DPKG_SHLIBDEPS)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libstatsubs${abi_version})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# Written here: cpack's own come with scripts that call ldconfig, which is the trigger's work.
set(control_files ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${control_files}/shlibs
     "libstatsubs ${abi_version} libstatsubs${abi_version} (>= ${PROJECT_VERSION})\n")
file(WRITE ${control_files}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${control_files}/shlibs ${control_files}/triggers)
description(LIBRARY "numerical core of population-model estimation: shared library")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libstatsubs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libstatsubs${abi_version} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), liblapack-dev, libblas-dev")
if(STATSUBS_MPI)
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", libopenmpi-dev")
endif()
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS statsubs-doc)
description(DEVELOPMENT "numerical core of population-model estimation: development files")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME statsubs-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
description(DOCUMENTATION "documents and examples of statsubs and varda")

set(CPACK_DEBIAN_VARDA_PACKAGE_NAME varda)
set(CPACK_DEBIAN_VARDA_PACKAGE_SUGGESTS statsubs-doc)
description(VARDA "maximum likelihood for nonlinear mixed-effects models")

# What Debian wants in each package beside what is installed; the script has no other way to know.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian_files.cmake)
set(CPACK_STATSUBS_SOURCE ${PROJECT_SOURCE_DIR})
set(CPACK_STATSUBS_LIBRARY_PACKAGE ${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME})
include(CPack)
