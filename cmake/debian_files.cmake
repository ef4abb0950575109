# SPDX-License-Identifier: Apache-2.0
#
# Run by cpack on each package's files before they are packed: copyright and changelog, and man pages
# compressed, as Debian's policy has them.
file(STRINGS ${CPACK_STATSUBS_SOURCE}/CHANGELOG.md heading LIMIT_COUNT 1 REGEX "[0-9]+-[0-9]+-[0-9]+")
string(REGEX MATCH "[0-9]+-[0-9]+-[0-9]+" date "${heading}")
execute_process(COMMAND date -u -R -d ${date} OUTPUT_VARIABLE stamp OUTPUT_STRIP_TRAILING_WHITESPACE)

# gzip without the time of packing, so that equal files make equal packages.
function(compress file)
  execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(library_package ${CPACK_STATSUBS_LIBRARY_PACKAGE})
set(development_package libstatsubs-dev)
set(documentation_package statsubs-doc)
set(varda_package varda)
foreach(component IN ITEMS library development documentation varda)
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  if(NOT IS_DIRECTORY ${root})
    continue()
  endif()
  set(folder ${root}/usr/share/doc/${${component}_package})
  file(MAKE_DIRECTORY ${folder})
  configure_file(${CPACK_STATSUBS_SOURCE}/cmake/copyright ${folder}/copyright COPYONLY)
  file(
    WRITE ${folder}/changelog.Debian
    "statsubs (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
    "  * What has changed in statsubs and varda is told in changelog.gz.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${stamp}\n")
  compress(${folder}/changelog.Debian)
  configure_file(${CPACK_STATSUBS_SOURCE}/CHANGELOG.md ${folder}/changelog COPYONLY)
  compress(${folder}/changelog)
  file(GLOB pages ${root}/usr/share/man/man*/*.[0-9])
  foreach(page IN LISTS pages)
    compress(${page})
  endforeach()
endforeach()
