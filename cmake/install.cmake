# SPDX-License-Identifier: Apache-2.0
#
# What `cmake --install` puts where, in four components: the shared library, what is needed to build
# against it, varda, and the documents with the examples.
include(CMakePackageConfigHelpers)

set(statsubs_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/statsubs)

# Every header that shows something of the shared library, and those that such headers include.
file(
  GLOB_RECURSE candidates CONFIGURE_DEPENDS
  RELATIVE ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/statsubs/*.h)
set(public_headers statsubs/c/host_table.h statsubs/state/shared_types.h
                   statsubs/support/fixed_array.h)
foreach(header IN LISTS candidates)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${header} shown LIMIT_COUNT 1
       REGEX "STATSUBS_(API|DECLARE_SHARED)")
  if(shown)
    list(APPEND public_headers ${header})
  endif()
endforeach()
foreach(header IN LISTS public_headers)
  get_filename_component(folder ${header} DIRECTORY)
  install(
    FILES ${PROJECT_SOURCE_DIR}/${header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}
    COMPONENT development)
endforeach()

# Separate sets: a program that links the shared library need not have what the static one needs.
install(
  TARGETS statsubs_shared
  EXPORT statsubs_shared
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT library
          NAMELINK_COMPONENT development)
install(
  TARGETS statsubs
  EXPORT statsubs_static
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(
  TARGETS statsubs_headers statsubs_host_by_name statsubs_by_reference
  EXPORT statsubs
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
if(TARGET statsubs_fortran)
  install(
    TARGETS statsubs_fortran
    EXPORT statsubs
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(
    FILES ${PROJECT_BINARY_DIR}/statsubs/fortran/modules/statsubs.mod
    DESTINATION ${STATSUBS_INSTALL_MODULE_DIR}
    COMPONENT development)
endif()

foreach(set IN ITEMS "" -shared -static)
  string(REPLACE - _ export statsubs${set})
  install(
    EXPORT ${export}
    FILE statsubs${set}-targets.cmake
    NAMESPACE statsubs::
    DESTINATION ${statsubs_cmake_dir}
    COMPONENT development)
endforeach()
configure_package_config_file(cmake/statsubs-config.cmake.in statsubs-config.cmake
                              INSTALL_DESTINATION ${statsubs_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/statsubs-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/statsubs-config.cmake
        ${PROJECT_BINARY_DIR}/statsubs-config-version.cmake
  DESTINATION ${statsubs_cmake_dir}
  COMPONENT development)

# pkg-config: paths from the place of the file itself, so that the prefix can be moved.
file(RELATIVE_PATH STATSUBS_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" STATSUBS_PREFIX_FROM_PC "${STATSUBS_PREFIX_FROM_PC}")
set(private_libraries ${LAPACK_LIBRARIES})
if(STATSUBS_MPI)
  list(APPEND private_libraries ${MPI_CXX_LIBRARIES})
endif()
foreach(library IN LISTS private_libraries ITEMS -lstdc++ -lm)
  string(REGEX REPLACE "^.*/lib([^/]*)\\.(so|a)$" "-l\\1" library "${library}")
  string(APPEND STATSUBS_PC_PRIVATE "${library} ")
endforeach()
if(STATSUBS_CHECKED)
  set(STATSUBS_PC_CFLAGS " -DSTATSUBS_CHECKED")
endif()
set(pkg_config_files statsubs)
if(TARGET statsubs_fortran)
  list(APPEND pkg_config_files statsubs-fortran)
endif()
foreach(name IN LISTS pkg_config_files)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(
    FILES ${PROJECT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endforeach()

if(VARDA)
  install(TARGETS varda RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT varda)
  configure_file(varda/cli/varda.1.in ${PROJECT_BINARY_DIR}/varda.1 @ONLY)
  # `man varda-fit` and its like show the same page.
  set(manual_pages ${PROJECT_BINARY_DIR}/varda.1)
  file(STRINGS ${PROJECT_SOURCE_DIR}/varda/cli/varda.1.in commands REGEX "^\\.B varda [a-z]+$")
  list(REMOVE_DUPLICATES commands)
  foreach(command IN LISTS commands)
    string(REGEX REPLACE "^.* " "" command "${command}")
    file(WRITE ${PROJECT_BINARY_DIR}/varda-${command}.1 ".so man1/varda.1\n")
    list(APPEND manual_pages ${PROJECT_BINARY_DIR}/varda-${command}.1)
  endforeach()
  install(
    FILES ${manual_pages}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT varda)
  install(
    FILES varda/cli/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME varda
    COMPONENT varda)
  install(
    FILES varda/cli/completion.zsh
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
    RENAME _varda
    COMPONENT varda)
endif()

# Documents point to each other and to the examples by relative paths, so they keep their places.
install(
  FILES LICENSE CHANGELOG.md CITATION.cff
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT documentation)
# The scripts beside the examples need the source tree.
install(
  DIRECTORY docs examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT documentation
  PATTERN "*.sh" EXCLUDE)

if(PROJECT_IS_TOP_LEVEL)
  add_custom_target(
    uninstall
    COMMAND ${CMAKE_COMMAND} -D BUILD=${CMAKE_BINARY_DIR} -P
            ${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake
    VERBATIM)
  include(cmake/package.cmake)
endif()
