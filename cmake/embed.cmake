# SPDX-License-Identifier: Apache-2.0

# embed(TARGET HEADER NAMES a b FILES x y): an object library whose functions a() and b(), which the
# header declares, return the bytes of the files. A target of its own, since the target of another
# folder cannot depend on a file that is made here. With LIST all it is one function all(), which
# returns a vector of them, in the order of FILES.
function(embed target header)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "LIST" "NAMES;FILES")
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}.cpp)
  set(script ${PROJECT_SOURCE_DIR}/cmake/write_bytes.cmake)
  add_custom_command(
    OUTPUT ${source}
    COMMAND ${CMAKE_COMMAND} "-DOUTPUT=${source}" "-DHEADER=${header}" "-DNAMES=${arg_NAMES}"
            "-DFILES=${arg_FILES}" "-DLIST=${arg_LIST}" -P ${script}
    DEPENDS ${arg_FILES} ${script}
    VERBATIM)
  add_library(${target} OBJECT ${source})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${target} PRIVATE build_flags)
endfunction()
