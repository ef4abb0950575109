#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# The Debian packages: debian.sh CPACK BUILD FOLDER. Each depends on what its binaries need.
set -eu
rm -rf "$3"
"$1" --config "$2/CPackConfig.cmake" -G DEB -B "$3" > /dev/null 2>&1
for package in libstatsubs0.1 libstatsubs-dev varda; do
  deb=$(echo "$3/${package}"_*.deb)
  dpkg-deb -c "$deb" > "$3/$package.files"
  dpkg-deb -f "$deb" Depends > "$3/$package.depends"
done
grep -q 'libc6' "$3/libstatsubs0.1.depends"
grep -q 'liblapack3' "$3/libstatsubs0.1.depends"
grep -q 'libstatsubs0.1 (= ' "$3/libstatsubs-dev.depends"
grep -q 'libnlopt0' "$3/varda.depends"
grep -q 'libstatsubs\.so\.0\.1$' "$3/libstatsubs0.1.files" || grep -q 'libstatsubs\.so\.0\.1 ->' "$3/libstatsubs0.1.files"
grep -q 'include/statsubs/c/statsubs\.h' "$3/libstatsubs-dev.files"
grep -q 'bin/varda$' "$3/varda.files"
