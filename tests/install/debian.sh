#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# The Debian packages hold their parts, depend on what their binaries need, and have no errors by
# lintian's rules where it is installed: debian.sh CPACK BUILD FOLDER
set -eu
folder=$3
rm -rf "$folder"
"$1" --config "$2/CPackConfig.cmake" -G DEB -B "$folder" > /dev/null 2>&1

expect() {  # PACKAGE DEPENDENCY FILE...
  local package=$1 dependency=$2 file
  shift 2
  dpkg-deb -f "$folder"/$package\_[0-9]*.deb Depends | grep "$dependency" > /dev/null ||
    { echo "$package needs $dependency"; exit 1; }
  dpkg-deb -c "$folder"/$package\_[0-9]*.deb > "$folder/contents"
  for file in "$@" 'share/doc/.*/copyright$' 'share/doc/.*/changelog\.Debian\.gz$'; do
    grep "$file" "$folder/contents" > /dev/null || { echo "$package lacks $file"; exit 1; }
  done
}
expect 'libstatsubs[0-9]*' 'liblapack3' 'libstatsubs\.so\.[0-9]'
expect 'libstatsubs-dev' 'libstatsubs[0-9.]* (= ' 'include/statsubs/c/statsubs\.h$'
expect 'statsubs-doc' '^$' 'doc/statsubs/docs/linking\.md$' 'doc/statsubs/examples/theophylline/theophylline\.toml$'
expect 'varda' 'libnlopt0' 'bin/varda$' 'man1/varda\.1\.gz$'
dpkg-deb -I "$folder"/libstatsubs[0-9]*.deb shlibs | grep -q '^libstatsubs [0-9.]* libstatsubs[0-9]' ||
  { echo "no shlibs"; exit 1; }

if command -v lintian > /dev/null; then
  lintian --allow-root --fail-on error "$folder"/*.deb > "$folder/lintian" || { cat "$folder/lintian"; exit 1; }
fi
