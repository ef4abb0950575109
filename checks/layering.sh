#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Holds the include lines to the layering of the repository: layering.sh SOURCE_DIR. Prints
# each line that breaks it and fails; CONTRIBUTING.md draws the picture. A small tree with one breach
# of each kind goes first, so that a check that finds nothing any more is noticed.
set -eu

source_dir=$1

leaves="stats sequences distributions"

# The folders of the library that files in its folder $1 may include; "any" for no restriction.
allowed_for() {
  case $1 in
    support) echo "support" ;;
    stats | sequences | distributions) echo "support $1" ;;
    state) echo "support state" ;;
    estep | mstep | stderr | quadrature) echo "support state $leaves $1" ;;
    *) echo "any" ;;
  esac
}

# "file folder" for every line that includes "statsubs/folder/..." or "varda/...", files below $1.
# What stands in statsubs itself is for everybody.
includes_below() {
  find "$1" -type f \( -name '*.h' -o -name '*.cpp' \) -exec \
    awk '/^[ \t]*#[ \t]*include[ \t]*[<"](statsubs|varda)\// {
           target = $0
           sub(/^[^<"]*[<"]/, "", target)
           split(target, part, "/")
           if (part[1] == "varda" || part[3] != "") print FILENAME, (part[1] == "varda" ? "varda" : part[2])
         }' {} +
}

# The rooms of varda that files in its room $1 may include.
varda_allowed_for() {
  below="support formula specification data model"
  case $1 in
    support) echo "support" ;;
    formula) echo "support formula" ;;
    specification) echo "support specification" ;;
    data) echo "support formula specification data" ;;
    model) echo "$below" ;;
    input) echo "$below input" ;;
    folder) echo "support folder" ;;
    comparison) echo "support folder comparison" ;;
    host) echo "$below host" ;;
    inference) echo "$below host inference" ;;
    method) echo "$below host inference method" ;;
    simulation) echo "$below inference simulation" ;;
    diagnostics) echo "$below host inference simulation diagnostics" ;;
    run) echo "$below host inference method simulation diagnostics run" ;;
    report) echo "$below comparison inference simulation diagnostics run report" ;;
    html_report) echo "$below folder simulation html_report" ;;
    selftest)
      echo "$below input host inference method simulation diagnostics run report selftest"
      ;;
    draft) echo "$below input host inference method draft" ;;
    cli)
      echo "$below input folder comparison host inference method simulation diagnostics run report" \
        "html_report selftest draft cli"
      ;;
  esac
}

# "file room" for every line that includes "varda/room/...", files below $1. What a model file says
# is a room of one header.
rooms_below() {
  find "$1" -type f \( -name '*.h' -o -name '*.cpp' \) -exec \
    awk '/^[ \t]*#[ \t]*include[ \t]*[<"]varda\/[a-z_]*\// {
           target = $0
           sub(/^[^<"]*[<"]/, "", target)
           split(target, part, "/")
           print FILENAME, (target ~ /^varda\/model\/specification[._]/ ? "specification" : part[2])
         }' {} +
}

# Prints the breaches inside varda in the tree $1, and the files outside its host that name a shared
# module of the library.
breaches_in_varda() {
  for folder in "$1"/varda/*/; do
    name=$(basename "$folder")
    rooms_below "$folder" | while read -r file target; do
      room=$name
      case $file in */varda/model/specification[._]*) room=specification ;; esac
      case " $(varda_allowed_for "$room") " in
        *" $target "*) ;;
        *) echo "$file: must not include from varda/$target" ;;
      esac
    done
  done
  modules='global_variables|qrpemlocalvariables|standarderrorvariables|saveearlyvars|bdsobl'
  grep -rnE "statsubs(::|/[a-z]+/)($modules)" "$1/varda" --include='*.h' --include='*.cpp' |
    grep -v '/varda/host/' | sed 's/:[^:]*:.*/: names a shared module of the library/' || true
}

# Prints the breaches in the tree $1.
breaches() {
  for folder in "$1"/statsubs/*/; do
    name=$(basename "$folder")
    allowed=$(allowed_for "$name")
    includes_below "$folder" | while read -r file target; do
      case " $allowed " in
        *" $target "*) continue ;;
        " any ") test "$target" = varda || continue ;;
      esac
      echo "$file: must not include from $target"
    done
  done
  if test -d "$1/varda"; then
    includes_below "$1/varda" | while read -r file target; do
      test "$target" != support || echo "$file: must not include from statsubs/support"
    done
    breaches_in_varda "$1"
  fi
}

# plant FILE INCLUDED: adds a file with one include line to the tree below $trial.
plant() {
  mkdir -p "$trial/$(dirname "$1")"
  echo "#include \"$2\"" > "$trial/$1"
}

trial=$(mktemp -d)
trap 'rm -r "$trial"' EXIT
plant statsubs/estep/good.cpp statsubs/distributions/b.h
plant statsubs/c/good.cpp statsubs/mstep/b.h
plant statsubs/stats/good.h statsubs/export.h
plant varda/host/good.cpp statsubs/estep/b.h
plant varda/host/shared.cpp statsubs/state/global_variables.h
plant varda/method/em/good.cpp varda/inference/b.h
plant varda/data/good.cpp varda/model/specification.h
plant varda/data/rows.cpp varda/formula/b.h
test -z "$(breaches "$trial")" || { echo "a sound tree is refused"; exit 1; }

plant statsubs/support/a.cpp statsubs/state/b.h
plant statsubs/sequences/a.cpp statsubs/distributions/b.h
plant statsubs/distributions/a.h statsubs/state/b.h
plant statsubs/state/a.cpp statsubs/estep/b.h
plant statsubs/mstep/a.cpp statsubs/estep/b.h
plant statsubs/stderr/a.cpp varda/b.h
plant statsubs/c/a.cpp varda/b.h
plant varda/host/a.cpp statsubs/support/b.h
plant varda/inference/a.cpp varda/method/em/b.h
plant varda/model/specification.h varda/data/b.h
plant varda/data/a.cpp varda/model/b.h
plant varda/formula/a.cpp varda/data/b.h
plant varda/report/a.cpp varda/host/b.h
plant varda/inference/b.cpp statsubs/state/global_variables.h
found=$(breaches "$trial" | wc -l)
test "$found" -eq 14 || { echo "$found of 14 planted breaches are found"; exit 1; }

test -d "$source_dir/statsubs/support" || { echo "no sources in $source_dir"; exit 1; }
found=$(breaches "$source_dir")
test -z "$found" || { echo "$found"; exit 1; }
