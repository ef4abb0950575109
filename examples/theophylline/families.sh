#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Fits the example with every kind of proposal and of points, seeds 1 to 20 (or to $1), evaluates the
# exact -2 log-likelihood at the estimates with 3,000 Sobol points, and prints how many fits converged
# and how far the worst of the 20 stays above the exact minimum (118.1009, without N log 2 pi).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
varda=${VARDA:-$here/../../build/release/bin/varda}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The example with the estimation settings $1 and, from estimates.csv, other start values.
model() {
  sed "s|^file = .*|file = \"$here/theophylline.csv\"|; s|^samples = .*|$1|; /^seed/d" \
    "$here/theophylline.toml"
}
at_estimates() {
  model "samples = 3000" | awk -F'[,"()]+' '
    FNR == NR {
      if ($2 == "omega") variance[$3] = $5
      else estimate[$1] = $2
      next
    }
    /^\[/ { section = $0 }
    { split($0, word, " ") }
    section == "[parameters]" && word[1] in estimate { print word[1] " = { start = " estimate[word[1]] " }"; next }
    section == "[omega]" && word[1] in variance { print word[1] " = " variance[word[1]]; next }
    section == "[residual]" && word[1] == "additive" { print "additive = " estimate["additive"]; next }
    { print }' "$work/fit/estimates.csv" -
}

echo "| proposal, points | converged | worst exact -2LL less the minimum |"
echo "|---|---|---|"
while read -r name settings; do
  converged=0
  worst=-1
  model "method = \"em\"\nsamples = 300\nstandard_errors = \"none\"\n$settings" >"$work/model.toml"
  for seed in $(seq 1 "${1:-20}"); do
    "$varda" fit "$work/model.toml" --output "$work/fit" --seed "$seed" --quiet >/dev/null &&
      converged=$((converged + 1))
    at_estimates >"$work/there.toml"
    "$varda" evaluate "$work/there.toml" --output "$work/there" --quiet >/dev/null
    worst=$(sed -n 's/^  "minus2ll_without_constant": \([-0-9.e+]*\),/\1/p' "$work/there/evaluate.json" |
      awk -v worst="$worst" '{ d = $1 - 118.1009; print (d > worst ? d : worst) }')
  done
  printf '| %s | %d of %d | %.4f |\n' "$name" "$converged" "${1:-20}" "$worst"
done <<'KINDS'
normal,Sobol proposal = "normal"
t,pseudo-random proposal = "t"
Laplace,Sobol proposal = "laplace"
mixture-of-two,Sobol proposal = "mixture2"
mixture-of-three,Sobol proposal = "mixture3"
population,Sobol proposal = "population"
normal,pseudo-random sampling = "random"
mixture-of-three,pseudo-random proposal = "mixture3"\nsampling = "random"
normal,fresh-Sobol points = "fresh"
KINDS
