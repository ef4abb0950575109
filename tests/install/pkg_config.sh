#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Linking with the flags of pkg-config, which escapes the blank in the prefix, so that the shell has to
# read the command twice: pkg_config.sh PREFIX LIBDIR EXAMPLES C++ [FORTRAN]
set -eu
prefix=$1 libdir=$2 examples=$3 cxx=$4 fortran=${5:-}
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
cd "$work" # a Fortran compiler leaves module files

# link COMPILER PACKAGE SOURCE FLAG...: with the line that docs/linking.md has.
link() {
  compiler=$1 package=$2 source=$3
  shift 3
  eval "$compiler" "$*" "'$examples/$source'" "$(pkg-config --cflags --libs "$package")" \
    "'-Wl,-rpath,$prefix/$libdir'" -o "'$work/one_step'"
  "$work/one_step" | diff "$examples/one_step.txt" -
}
link "$cxx" statsubs host-c++/one_step.cpp -std=c++20
test -z "$fortran" || link "$fortran" statsubs-fortran host-fortran/one_step.f90

# The archive is asked for by name: with -lstatsubs a linker prefers the shared library.
libraries=$(pkg-config --libs --static statsubs | sed 's/-lstatsubs/-l:libstatsubs.a/')
eval "$cxx" -std=c++20 "'$examples/host-c++/one_step.cpp'" "$(pkg-config --cflags statsubs)" "$libraries" \
  -o "'$work/one_step'"
"$work/one_step" | diff "$examples/one_step.txt" -
