#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Holds docs/callables to the host interface: callables.sh SOURCE_DIR. Every callable of
# statsubs/state/host.h has a page with all sections, its signatures in C++ and C are those of the
# headers, docs/host.md and mkdocs.yml lead to it, and there are no other pages. Prints what is wrong
# and fails.
set -eu

cd "$1"
pages=docs/callables
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# The text on standard input in one line with single blanks.
joined() {
  tr -s ' \\\n' ' ' | sed 's/ $//'
}

# The code of language $2 in the page $1.
code() {
  sed -n "/^\`\`\`$2\$/,/^\`\`\`\$/p" "$1" | grep -v '^```' | joined
}

joined < statsubs/state/host.h | grep -oE 'X\((void|int|double), \w+, \([^()]*\), \([^()]*\)\)' |
  sed -E 's/^X\((\w+), (\w+), (\([^()]*\)), .*/\2 \1 \2\3;/' > "$work/callables"
joined < statsubs/c/host_table.h > "$work/c"

sections='Signature Called Collective Arguments May_change Failure In_varda'
while read -r name signature; do
  page=$pages/$name.md
  test -f "$page" || { echo "$name has no page"; continue; }
  test "$(head -n 1 "$page")" = "# $name" || echo "$page: the title is not $name"
  test "$(sed -n 's/^## //p' "$page" | tr ' \n' '_ ' | sed 's/ $//')" = "$sections" ||
    echo "$page: the sections are not $sections"
  test "$(code "$page" cpp)" = "$signature" || echo "$page: the header has $signature"
  in_c=$(code "$page" c)
  case $in_c in "${signature%%"$name"*}(*$name)("*) ;; *) in_c='' ;; esac
  test -n "$in_c" && grep -qF "$in_c" "$work/c" || echo "$page: not the signature in C"
  for list in docs/host.md mkdocs.yml; do
    grep -qF "callables/$name.md" "$list" || echo "$page: not in $list"
  done
done < "$work/callables" > "$work/faults"
for page in "$pages"/*.md; do
  name=$(basename "$page" .md)
  grep -q "^$name " "$work/callables" || echo "$page: no such callable"
done >> "$work/faults"

test "$(wc -l < "$work/callables")" -gt 40 || echo "the callables are not found" >> "$work/faults"
cat "$work/faults"
test ! -s "$work/faults"
