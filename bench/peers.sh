#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
#   bench/peers.sh [SUBJECTS...]
#
# Fits theophylline, and a simulated population (bench/oral_population.py) for each count given, with
# varda and with R's nlme, lme4 and TMB, from the same start values on the same data. Prints the
# seconds of the fastest of several fits without the start of the process and without standard
# errors, the objective that each program states, and the exact -2 log-likelihood at its estimates
# (varda evaluate, 3,000 points a subject) with its Monte-Carlo error; and the seconds of varda's whole
# program with default settings. R packages that are not installed are left out.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
varda=${VARDA:-$here/../build/release/bin/varda}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

number() { sed -n "s/^ *\"$1\": \([-0-9.e+]*\),*$/\1/p" "$2"; }

# The model file $1 with the estimates in $2/estimates.csv as start values and 3,000 points.
at_estimates() {
  awk -F'[,"()]+' '
    FNR == NR {
      if ($2 ~ /^omega/) variance[$3] = $5
      else estimate[$1] = $2
      next
    }
    /^\[/ { section = $0 }
    { split($0, word, " ") }
    section == "[parameters]" && word[1] in estimate {
      sub(/start = [-0-9.]+/, "start = " estimate[word[1]])
      if ("CL_WT" in estimate) sub(/center = 70, start = [-0-9.]+/, "center = 70, start = " estimate["CL_WT"])
    }
    section == "[omega]" && word[1] in variance { $0 = word[1] " = " variance[word[1]] }
    section == "[residual]" && word[1] in estimate { $0 = word[1] " = " estimate[word[1]] }
    /^samples/ || /^seed/ || /^standard_errors/ { next }
    { print }
    section == "[estimation]" && /^\[/ { print "samples = 3000" }' "$2/estimates.csv" "$1"
}

exact() {
  "$varda" evaluate "$1" --output "$work/exact" --quiet >/dev/null || true
  printf '%.3f +- %.3f' "$(number minus2ll "$work/exact/evaluate.json")" \
    "$(number minus2ll_mc_se "$work/exact/evaluate.json")"
}

# compare NAME MODEL DATA ERROR RUNS START...
compare() {
  local name=$1 model=$2 data=$3 error=$4 runs=$5
  shift 5
  echo "$name: program, version, seconds, stated objective, exact -2 log-likelihood there"
  sed "s|^file = .*|file = \"$data\"|; /^standard_errors/d; s/^\[estimation\]/&\nstandard_errors = \"none\"/" \
    "$model" >"$work/fit.toml"
  for _ in $(seq "$runs"); do
    "$varda" fit "$work/fit.toml" --output "$work/fit" --quiet >/dev/null
    echo "$(number start "$work/fit/run.json") $(number iterations "$work/fit/run.json") $(number likelihood "$work/fit/run.json")"
  done | sort -g | awk '{ t = $1 + $2 + $3; if (NR == 1 || t < least) least = t } END { printf "%.4f\n", least }' >"$work/seconds"
  at_estimates "$work/fit.toml" "$work/fit" >"$work/varda.toml"
  echo "varda $("$varda" --version | cut -d' ' -f2) $(cat "$work/seconds") $(number minus2ll "$work/fit/fit.json") $(exact "$work/varda.toml")"
  # The process from its start to its end, with the standard errors and NPDE of the default settings.
  sed "s|^file = .*|file = \"$data\"|; /^standard_errors/d" "$model" >"$work/whole.toml"
  for _ in $(seq "$runs"); do
    local began=$EPOCHREALTIME
    "$varda" fit "$work/whole.toml" --output "$work/whole" --quiet >/dev/null
    awk "BEGIN { print $EPOCHREALTIME - $began }"
  done | sort -g | awk 'NR == 1 { printf "varda, whole program, %.3f\n", $1 }'
  Rscript "$here/peers.R" "$data" "$work" "$error" "$runs" "$here" "$@" >"$work/peers.txt"
  while read -r peer rest; do
    case $peer in
      nlme | lme4 | TMB) ;;
      *) continue ;;
    esac
    if [[ -e $work/$peer.toml ]]; then rest="$rest $(exact "$work/$peer.toml")"; fi
    echo "$peer $rest"
  done <"$work/peers.txt"
  rm -f "$work"/{nlme,lme4,TMB}.toml
}

theophylline=$(cd "$here/../examples/theophylline" && pwd)
compare theophylline "$theophylline/theophylline.toml" "$theophylline/theophylline.csv" additive 5 \
  1.2 3 35 NA 0.3 0.3 0.3 1
for subjects in "$@"; do
  "$here/oral_population.py" "$subjects" "$work"
  compare "$subjects subjects" "$work/oral-$subjects.toml" "$work/oral-$subjects.csv" proportional 2 \
    1.2 3.5 28 0.5 0.2 0.2 0.2 0.3
done
