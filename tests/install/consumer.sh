#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Configures, builds and runs a program: consumer.sh CMAKE SOURCE BUILD EXPECTED OPTION... Its output
# is the text of the file EXPECTED.
set -eu
cmake=$1 source=$2 build=$3 expected=$4
shift 4
rm -rf "$build"
"$cmake" -S "$source" -B "$build" "$@"
"$cmake" --build "$build"
"$build"/one_step | diff "$expected" -
