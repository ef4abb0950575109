# SPDX-License-Identifier: Apache-2.0
# Completion of varda's command line for bash.
_varda() {
  local current=$2 previous=$3
  case $previous in
    -o | --output)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    --seed | --samples | --threads) return ;;
  esac
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W "fit evaluate check --help --version" -- "$current")
  elif [[ $current == -* ]]; then
    local options="--output --seed --samples --threads --quiet --records --help"
    [ "${COMP_WORDS[1]}" = check ] && options="--json --help"
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -d -- "$current"; compgen -f -X '!*.toml' -- "$current")
  fi
}
complete -o filenames -F _varda varda
