#compdef varda
# SPDX-License-Identifier: Apache-2.0
# Completion of varda's command line for zsh.
_varda() {
  local -a commands run source
  commands=(
    'fit:estimate the parameters'
    'evaluate:the exact likelihood at the start values'
    'check:all that can be known before a fit'
    'new:write a model file for a structure and your data'
    'report:one HTML file with the results and their drawings'
    'compare:compare runs'
    'simulate:data as the model would make them'
    'predict:predictions of the population and subjects'
    'vpc:visual predictive check'
    'selftest:does this installation find what it should?'
  )
  run=(
    ':model file:_files -g "*.toml"'
    '(-o --output)'{-o,--output}'[folder for the results]:folder:_directories'
    '--from[start at the estimates of a fit]:folder:_directories'
    '--seed[instead of the seed of the model file]:seed:'
    '--samples[instead of the samples of the model file]:samples:'
    '--report[write report.html into the folder]'
    '--threads[threads of each process]:threads:'
    '(-q --quiet)'{-q,--quiet}'[no progress]'
    '--records[print the records of the library]'
  )
  source=(
    ':model file or folder of a fit:_files'
    '--data[another data set]:data:_files -g "*.csv"'
    '(-o --output)'{-o,--output}'[file for the table]:file:_files'
    '--seed[instead of the seed of the model or fit]:seed:'
    '--threads[threads]:threads:'
  )
  local -a simulation
  simulation=(
    '(-n --replicates)'{-n,--replicates}'[simulations of the data set]:replicates:'
    '--uncertainty[draw the parameters from the covariance of the estimates]'
  )
  if (( CURRENT == 2 )); then
    _describe command commands
    _arguments '(-h --help)'{-h,--help}'[print the options]' '--version[print the version]'
    return
  fi
  local command=$words[2]
  shift words
  (( CURRENT-- ))
  case $command in
    fit) _arguments $run '--resume[take up the fit in the folder that was killed or stopped]' ;;
    evaluate) _arguments $run ;;
    check) _arguments ':model file:_files -g "*.toml"' '--json[print JSON]' ;;
    new)
      _arguments ':structure:' '--list[list the structures, or describe one]' \
        '--data[data set that start values come from]:data:_files -g "*.csv"' \
        '(-o --output)'{-o,--output}'[model file]:file:_files' '--equations[write the equations]' \
        '--outputs[outputs that were measured]:outputs:' '*--column[ROLE=NAME]:column:' \
        '--error[residual error]:error:(additive proportional combined combined-sd power log-normal box-cox)'
      ;;
    report)
      _arguments ':folder:_directories' '(-o --output)'{-o,--output}'[file for the report]:file:_files' \
        '(-n --replicates)'{-n,--replicates}'[simulations]:replicates:' '--threads[threads]:threads:'
      ;;
    selftest) _arguments '--json[print JSON]' '(-q --quiet)'{-q,--quiet}'[no progress]' ;;
    compare) _arguments '*:folder:_directories' '--nested[tests]' '--json[print JSON]' ;;
    simulate) _arguments $source $simulation ;;
    predict) _arguments $source '--times[FROM:TO:STEP or a list]:times:' '--samples[samples]:samples:' ;;
    vpc)
      _arguments $source $simulation '--prediction-corrected[correct by predictions]' \
        '--time-after-dose[instead of time]' '--bins[number or edges]:bins:' \
        '--stratify[covariate]:covariate:'
      ;;
  esac
}
_varda "$@"
