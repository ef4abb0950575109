#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# The Debian packages hold their parts and depend on what their binaries need:
# debian.sh CPACK BUILD FOLDER
set -eu
folder=$3
rm -rf "$folder"
"$1" --config "$2/CPackConfig.cmake" -G DEB -B "$folder" > /dev/null 2>&1

expect() {  # PACKAGE DEPENDENCY FILE
  dpkg-deb -f "$folder"/$1_*.deb Depends | grep "$2" > /dev/null || { echo "$1 needs $2"; exit 1; }
  dpkg-deb -c "$folder"/$1_*.deb | grep "$3" > /dev/null || { echo "$1 lacks $3"; exit 1; }
}
expect 'libstatsubs[0-9]*' 'liblapack3' 'libstatsubs\.so\.[0-9]'
expect 'libstatsubs-dev' 'libstatsubs[0-9.]* (= ' 'include/statsubs/c/statsubs\.h$'
expect 'varda' 'libnlopt0' 'bin/varda$'
