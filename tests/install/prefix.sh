#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# A fresh prefix: prefix.sh CMAKE BUILD PREFIX. Installed elsewhere and moved, since nothing that is
# installed may know its own place.
set -eu
rm -rf "$3" "$3.first"
"$1" --install "$2" --prefix "$3.first" > /dev/null
mv "$3.first" "$3"
