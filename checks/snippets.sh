#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Holds the code that documents show to the programs it is from: snippets.sh SOURCE_DIR. A fenced
# block after a line "<!-- from PATH -->" consists of consecutive lines of the file PATH. Prints what
# does not and fails.
set -eu

cd "$1"
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# Prints a line for each marked block of the documents "$@" that its file does not contain, and the
# number of marked blocks last.
compare() {
  awk 'function text_of(path,   line, text) {
         text = "\n"
         while ((getline line < path) > 0) text = text line "\n"
         close(path)
         return text
       }
       FNR == 1 { path = ""; inside = 0 }
       /^<!-- from [^ ]+ -->$/ { path = $3; blocks++; next }
       path == "" { next }
       !inside && /^```/ { inside = 1; block = "\n"; next }
       !inside && NF { print FILENAME ":" FNR ": no code follows the line with its source"; path = "" }
       inside && /^```$/ {
         if (block == "\n" || !index(text_of(path), block)) print FILENAME ":" FNR ": not in " path
         path = ""; inside = 0; next
       }
       inside { block = block $0 "\n" }
       END { print blocks + 0 }' "$@"
}

printf 'a\nb\nc\n' > "$work/program"
for lines in 'a\nb' 'b\nc' 'a\nc' 'b\nd' 'a\n' ''; do
  printf '<!-- from %s -->\n\n```c\n%b\n```\n' "$work/program" "$lines"
done > "$work/document"
test "$(compare "$work/document" | wc -l)" -eq 5 || { echo "unlike blocks are not found"; exit 1; }

compare README.md docs/*.md docs/*/*.md > "$work/found"
test "$(tail -n 1 "$work/found")" -gt 3 || { echo "the documents show too little code"; exit 1; }
sed '$d' "$work/found"
test "$(wc -l < "$work/found")" -eq 1
