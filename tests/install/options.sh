#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# What is missing is told with the option that does without it, and a Fortran compiler that was not
# found once is looked for again: options.sh CMAKE SOURCE BUILD GENERATOR [FORTRAN]
set -eu
cmake=$1 source=$2 build=$3 generator=$4 fortran=${5:-}
rm -rf "$build"

# configure EXPECTED OPTION...: the text is in what the configuration says.
configure() {
  expected=$1
  shift
  "$cmake" -S "$source" -B "$build" -G "$generator" -DVARDA=OFF "$@" > "$build.said" 2>&1 && status=0 || status=$?
  grep -q -e "$expected" "$build.said" || { echo "not told: $expected"; cat "$build.said"; exit 1; }
}
configure '-DBUILD_TESTING=OFF' -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DSTATSUBS_FORTRAN=OFF
test "$status" -ne 0
configure '-DSTATSUBS_MPI=OFF' -DCMAKE_DISABLE_FIND_PACKAGE_MPI=ON
test "$status" -ne 0

# Without tests, since those of the library alone want the packages that were hidden.
rm -r "$build"
test -z "$fortran" || configure 'working Fortran compiler' -DSTATSUBS_MPI=OFF -DBUILD_TESTING=OFF \
  -DCMAKE_Fortran_COMPILER=CMAKE_Fortran_COMPILER-NOTFOUND
