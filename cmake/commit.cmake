# SPDX-License-Identifier: Apache-2.0
# cmake -D SOURCE=... -D TEMPLATE=... -D TO=... -P commit.cmake: writes which commit the sources are
# at, with a + where files differ from it; nothing outside a clone. Left alone where nothing changed.
execute_process(
  COMMAND git -C ${SOURCE} rev-parse --short=12 HEAD
  OUTPUT_VARIABLE COMMIT
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(
  COMMAND git -C ${SOURCE} status --porcelain --untracked-files=no
  OUTPUT_VARIABLE CHANGES
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(CHANGES)
  string(APPEND COMMIT +)
endif()
configure_file(${TEMPLATE} ${TO} @ONLY)
