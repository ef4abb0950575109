# SPDX-License-Identifier: Apache-2.0

# need_says(NAME FROM DEBIAN_PACKAGE... [UNLESS OPTION]): ends the configuration with what to install
# and the option that does without it.
function(need_says name)
  cmake_parse_arguments(PARSE_ARGV 1 need "" "UNLESS" "FROM")
  list(JOIN need_FROM " " packages)
  set(advice "${name} is missing. On Debian: apt-get install ${packages}")
  if(need_UNLESS STREQUAL "VARDA")
    string(APPEND advice "\nAll that varda needs: scripts/install-packages run")
  elseif(need_UNLESS STREQUAL "BUILD_TESTING")
    string(APPEND advice "\nAll that the tests need: scripts/install-packages test")
  endif()
  if(need_UNLESS)
    string(APPEND advice "\nTo do without it: cmake -D${need_UNLESS}=OFF")
  endif()
  message(FATAL_ERROR "${advice}")
endfunction()

# need(PACKAGE [find_package's arguments...] FROM DEBIAN_PACKAGE... [UNLESS OPTION]): find_package,
# which may not find nothing. A macro, since some packages set variables that are read later.
macro(need package)
  cmake_parse_arguments(need "" "UNLESS" "FROM" ${ARGN})
  find_package(${package} ${need_UNPARSED_ARGUMENTS})
  if(NOT ${package}_FOUND)
    need_says(${package} FROM ${need_FROM} UNLESS ${need_UNLESS})
  endif()
endmacro()
