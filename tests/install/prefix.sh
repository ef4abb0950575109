#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# A fresh prefix: prefix.sh CMAKE BUILD PREFIX. Installed elsewhere and moved, since nothing that is
# installed may know its own place; and once before, to see that all of it can be removed again. A
# developer's own installation from this build folder is not forgotten.
set -eu
list=$2/install_manifest.txt
rm -rf "$3" "$3.first" "$3.list"
if [ -e "$list" ]; then cp "$list" "$3.list"; fi

"$1" --install "$2" --prefix "$3.first" > /dev/null
echo mine > "$3.first/share/doc/statsubs/mine"
"$1" -D BUILD="$2" -P "$(dirname "$0")/../../cmake/uninstall.cmake" > /dev/null
test "$(cd "$3.first" && find . -type f -o -type l)" = ./share/doc/statsubs/mine ||
  { echo "files are left, or too few"; exit 1; }
test ! -e "$3.first/include/statsubs" || { echo "empty folders are left"; exit 1; }
rm -r "$3.first"

"$1" --install "$2" --prefix "$3.first" > /dev/null
mv "$3.first" "$3"
rm "$list"
if [ -e "$3.list" ]; then mv "$3.list" "$list"; fi
