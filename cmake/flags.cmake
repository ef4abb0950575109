# SPDX-License-Identifier: Apache-2.0
# One interface target carries the flags that every target of this repository is built with.
# Contraction into fused operations is off: the scrambled sequences and the results at several
# processes are defined to the last bit.
add_library(build_flags INTERFACE)
target_compile_options(build_flags INTERFACE -ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow
                                             -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual)
if(STATSUBS_WERROR)
  target_compile_options(build_flags INTERFACE -Werror)
endif()
if(STATSUBS_SANITIZE)
  target_compile_options(build_flags INTERFACE -fsanitize=address,undefined
                                               -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(build_flags INTERFACE -fsanitize=address,undefined)
endif()
