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

"$varda" --version | grep -q '^varda [0-9]'
tasks=$("$varda" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z]*\) .*/\1/p')
[ "$(wc -w <<< "$tasks")" -ge 2 ]
for task in $tasks; do
  grep -q "^\.B varda $task$" "$man" || { echo "$task is not in the man page"; exit 1; }
  for file in "$bash_completion" "$zsh_completion"; do
    grep -qw -- "$task" "$file" || { echo "$task is not in $file"; exit 1; }
  done
done
options=$(for task in "" $tasks; do "$varda" $task --help; done | grep -oE -- '--[a-z]+' | sort -u)
[ "$(wc -w <<< "$options")" -ge 6 ]
for option in $options; do
  grep -q -- "${option//-/\\\\-}" "$man" || { echo "$option is not in the man page"; exit 1; }
  for file in "$bash_completion" "$zsh_completion"; do
    grep -q -- "$option" "$file" || { echo "$option is not in $file"; exit 1; }
  done
done

source "$bash_completion"
COMP_CWORD=1 COMP_WORDS=(varda ev) COMPREPLY=()
_varda varda ev varda
[ "${COMPREPLY[*]}" = evaluate ]
COMP_CWORD=3 COMP_WORDS=(varda fit model.toml --sam)
_varda varda --sam model.toml
[ "${COMPREPLY[*]}" = --samples ]
