#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Holds docs/messages.md to the codes that the sources emit: messages.sh SOURCE_DIR. Prints each
# code that stands on one side alone and fails.
set -eu

source_dir=$1
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# The text literals of the sources, and the first cells of the page's table rows.
grep -rhoE --include='*.cpp' '"[EW]-[A-Z]+(-[A-Z]+)+"' "$source_dir/varda" | tr -d '"' |
  sort -u > "$work/sources"
sed -nE 's/^\| `([EW]-[A-Z-]+)` \|.*/\1/p' "$source_dir/docs/messages.md" | sort > "$work/page"

test "$(wc -l < "$work/sources")" -gt 10 || { echo "the sources' codes are not found"; exit 1; }
uniq -d "$work/page" | sed 's/$/ stands in the page twice/' > "$work/faults"
comm -23 "$work/sources" "$work/page" | sed 's/$/ is not in the page/' >> "$work/faults"
comm -13 "$work/sources" "$work/page" | sed 's/$/ is not in the sources/' >> "$work/faults"
cat "$work/faults"
test ! -s "$work/faults"
