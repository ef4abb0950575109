#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Linking with the flags of statsubs.pc: pkg_config.sh PREFIX LIBDIR COMPILER EXAMPLES
set -eu
export PKG_CONFIG_PATH="$1/$2/pkgconfig"
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
for linkage in "" --static; do
  # The archive is asked for by name: with -lstatsubs a linker prefers the shared library.
  libraries=$(pkg-config --libs $linkage statsubs)
  test -z "$linkage" || libraries=$(echo "$libraries" | sed 's/-lstatsubs/-l:libstatsubs.a/')
  # shellcheck disable=SC2046,SC2086
  "$3" -std=c++20 "$4/host-c++/one_step.cpp" $(pkg-config --cflags statsubs) $libraries -o "$work/one_step"
  LD_LIBRARY_PATH="$1/$2" "$work/one_step" | diff "$4/one_step.txt" -
done
