#compdef varda
# SPDX-License-Identifier: Apache-2.0
# Completion of varda's command line for zsh.
_arguments \
  '1:task:((fit\:"estimate the parameters" evaluate\:"the exact likelihood at the start values" check\:"all that can be known before a fit"))' \
  '2:model file:_files -g "*.toml"' \
  '(-o --output)'{-o,--output}'[folder for the results]:folder:_directories' \
  '--seed[instead of the seed of the model file]:seed:' \
  '--samples[instead of the samples of the model file]:samples:' \
  '--threads[threads of each process]:threads:' \
  '(-q --quiet)'{-q,--quiet}'[no progress]' \
  '--records[print the records of the library]' \
  '--json[print what check found as JSON]' \
  '(-h --help)'{-h,--help}'[print the options]' \
  '--version[print the version]'
