#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Follows the links of the documents: links.sh SOURCE_DIR. Each leads to a file, and a part after # to a
# heading there; what is installed leads to what is installed, and pages of the site to pages of the
# site; the site's navigation and docs/index.md have every page; and the documents that sources and man
# pages speak of are there. Prints what is wrong and fails.
set -eu

work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# "page<tab>target" for every link to another place than the network in the documents "$@".
links_of() {
  awk 'FNR == 1 { fenced = 0 }
       /^ *```/ { fenced = !fenced; next }
       fenced || /^    / { next }
       { while (match($0, /\]\([^()]*\)/)) {
           target = substr($0, RSTART + 2, RLENGTH - 3)
           $0 = substr($0, RSTART + RLENGTH)
           if (target !~ /^[a-z]+:/) print FILENAME "\t" target
         } }' "$@"
}

# The anchors of a document's headings, as its readers make them.
anchors_of() {
  awk '/^```/ { fenced = !fenced } !fenced && /^#+ / { sub(/^#+ +/, ""); print tolower($0) }' "$1" |
    sed -E 's/\[([^]]*)\]\([^)]*\)/\1/g; s/[^a-z0-9 _-]//g; s/ /-/g'
}

# Prints what is wrong with the links in the tree $1.
dead_links() (
  cd "$1"
  find . \( -path ./build -o -path ./.git \) -prune -o -name '*.md' -print | sed 's|^\./||' | sort > "$work/pages"
  while read -r page; do links_of "$page"; done < "$work/pages" | while IFS='	' read -r page target; do
    path=${target%%#*}
    case $target in *'#'*) anchor=${target#*#} ;; *) anchor= ;; esac
    if [ -z "$path" ]; then file=$page; else file=$(dirname "$page")/$path; fi
    if [ ! -e "$file" ]; then echo "$page: $target is not there"; continue; fi
    if [ -n "$anchor" ] && ! anchors_of "$file" | grep -qxF -e "$anchor"; then
      echo "$page: $target: no such heading"
    fi
    case $page:$(realpath --relative-to=. "$file") in
      docs/*:docs | docs/*:docs/* | docs/*:examples) ;;
      docs/*:*.md) echo "$page: $target is not in the site" ;;
      docs/*:examples/* | examples/*:docs/* | examples/*:examples/*) ;;
      docs/*:LICENSE | docs/*:CITATION.cff | examples/*:LICENSE | examples/*:CHANGELOG.md) ;;
      docs/*:* | examples/*:*) echo "$page: $target is not installed" ;;
    esac
  done
)

mkdir -p "$work/tree/docs" "$work/tree/examples"
printf '# One\n\n## A `b` c\n\n[good](#a-b-c) [good](two.md#two) [dead](three.md) [dead](two.md#one)\n' > "$work/tree/docs/one.md"
printf '# Two\n\n[good](../examples) [out](../README.md) ![dead](picture.png)\n' > "$work/tree/docs/two.md"
printf '[good](docs/one.md)\n\n```\n[code](nowhere)\n```\n' > "$work/tree/README.md"
dead_links "$work/tree" > "$work/found"
test "$(wc -l < "$work/found")" -eq 4 || { echo "not 4 of 4 planted faults are found:"; cat "$work/found"; exit 1; }

cd "$1"
dead_links . > "$work/faults"
for page in $(cd docs && find . -name '*.md' | sed 's|^\./||'); do
  grep -q ": $page\$" mkdocs.yml || echo "docs/$page is not in mkdocs.yml"
  case $page in
    index.md | callables/*) ;; # docs/host.md has the callables
    *) grep -q "]($page)" docs/index.md || echo "docs/$page is not in docs/index.md" ;;
  esac
done >> "$work/faults"
grep -rnoE --include='*.h' --include='*.cpp' --include='*.in' --include='*.html' 'docs/[a-z_-]+(\.md)?' varda statsubs checks |
  while IFS=: read -r file line path; do
    test -e "$path" || echo "$file:$line: $path is not there"
  done >> "$work/faults"
grep -HoE '[a-z\\-]+\.md' varda/cli/*.1.in | tr -d '\\' | while IFS=: read -r file page; do
  test -e "docs/$page" || echo "$file: $page is not there"
done >> "$work/faults"
cat "$work/faults"
test ! -s "$work/faults"
