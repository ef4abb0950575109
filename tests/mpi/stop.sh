#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# A stop of the process ends its job, with its message and status 0: stop.sh COMMAND...
set -eu
said=$(mktemp)
trap 'rm "$said"' EXIT
timeout 60 "$@" 2> "$said" || { echo "status $?"; cat "$said"; exit 1; }
grep -qx 'STOP SMALL, X, BIG not monotone in INVR' "$said" || { cat "$said"; exit 1; }
