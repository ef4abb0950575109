#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# The installed program, and its man page and completions, which name every task and option:
# varda.sh PREFIX
set -euo pipefail
varda=$1/bin/varda
man=$1/share/man/man1/varda.1
bash_completion=$1/share/bash-completion/completions/varda
zsh_completion=$1/share/zsh/vendor-completions/_varda

work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

"$varda" --version | grep -q '^varda [0-9]'
tasks=$("$varda" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z]*\) .*/\1/p')
[ "$(wc -w <<< "$tasks")" -ge 2 ]
for task in $tasks; do
  grep -q "^\.B varda $task$" "$man" || { echo "$task is not in the man page"; exit 1; }
  [ -e "${man%.1}-$task.1" ] || { echo "man varda-$task shows nothing"; exit 1; }
  for file in "$bash_completion" "$zsh_completion"; do
    grep -qw -- "$task" "$file" || { echo "$task is not in $file"; exit 1; }
  done
done
# man_options TASK: the options that the page gives for it, in a section with its name or, where an
# entry begins with tasks in parentheses, for these alone.
man_options() {
  awk -v task="$1" '
    function has(text) {
      text = " " tolower(text) " "
      gsub(/[^a-z]/, " ", text)
      return index(text, " " task " ")
    }
    /^\.SH/ { other = /OTHER OPTIONS/; mine = /OPTIONS/ && (other || has($0)); next }
    /^\.TP/ {
      if ((getline head) <= 0 || (getline text) <= 0 || !mine) next
      if (match(text, /^\([a-z, ]*\)/)) { if (has(substr(text, 1, RLENGTH))) print head }
      else if (!other || head ~ /help/) print head
    }' "$man" |
    grep -oE '\\-\\-[a-z\\-]+' | tr -d '\\' | sort -u
}

for task in $tasks; do
  "$varda" "$task" --help | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u > "$work/options"
  [ -s "$work/options" ]
  man_options "$task" | diff "$work/options" - || { echo "the man page has other options of $task"; exit 1; }
  for file in "$bash_completion" "$zsh_completion"; do
    for option in $(cat "$work/options"); do
      grep -q -- "$option" "$file" || { echo "$option is not in $file"; exit 1; }
    done
  done
done

source "$bash_completion"
COMP_CWORD=1 COMP_WORDS=(varda ev) COMPREPLY=()
_varda varda ev varda
[ "${COMPREPLY[*]}" = evaluate ]
COMP_CWORD=3 COMP_WORDS=(varda fit model.toml --sam)
_varda varda --sam model.toml
[ "${COMPREPLY[*]}" = --samples ]
