# SPDX-License-Identifier: Apache-2.0
# Completion of varda's command line for bash.
_varda() {
  local current=$2 previous=$3 command=${COMP_WORDS[1]}
  case $previous in
    --from)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    -o | --output)
      case $command in
        new | report | simulate | predict | vpc) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        *) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
      esac
      return
      ;;
    --data)
      mapfile -t COMPREPLY < <(compgen -d -- "$current"; compgen -f -X '!*.csv' -- "$current")
      return
      ;;
    --column | --outputs) return ;;
    --error)
      mapfile -t COMPREPLY < <(compgen -W "additive proportional combined combined-sd power log-normal box-cox" -- "$current")
      return
      ;;
    --seed | --samples | --threads | -n | --replicates | --times | --bins | --stratify) return ;;
  esac
  if [ "$COMP_CWORD" -eq 1 ]; then
    local commands="fit evaluate check new report compare simulate predict vpc selftest"
    mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$current")
  elif [[ $current == -* ]]; then
    local options="--output --from --seed --samples --threads --report --quiet --records --help"
    local source="--data --output --seed --threads --help"
    case $command in
      fit) options+=" --resume" ;;
      check) options="--json --help" ;;
      new) options="--list --data --output --equations --outputs --column --error --help" ;;
      report) options="--output --replicates --threads --help" ;;
      selftest) options="--json --quiet --help" ;;
      compare) options="--nested --json --help" ;;
      simulate) options="--replicates --uncertainty $source" ;;
      predict) options="--times --samples $source" ;;
      vpc)
        options="--replicates --uncertainty --prediction-corrected --time-after-dose --bins"
        options+=" --stratify $source"
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  elif [ "$command" = compare ] || [ "$command" = report ]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -d -- "$current"; compgen -f -X '!*.toml' -- "$current")
  fi
}
complete -o filenames -F _varda varda
