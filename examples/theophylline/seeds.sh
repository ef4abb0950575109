#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Fits the example with the seeds 1 to 20 (or to $1), further arguments being settings of its model
# file (seeds.sh 20 'start = "presample"'), and prints, for each, how far the estimates are
# from the exact maximum likelihood estimates (in per cent) and the stated -2 log-likelihood from
# the exact minimum (in units of the stated Monte Carlo error). The exact values are from adaptive
# Gauss-Hermite quadrature with 25 nodes per random effect.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
varda=${VARDA:-$here/../../build/release/bin/varda}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sed "s|^file = .*|file = \"$here/theophylline.csv\"|" "$here/theophylline.toml" >"$work/model.toml"
[ $# -lt 2 ] || printf '%s\n' "${@:2}" >>"$work/model.toml"

number() { sed -n "s/^  \"$1\": \([-0-9.e+]*\),*$/\1/p" "$work/fit.json"; }

echo "| seed | verdict | iterations | ka % | CL % | V % | sd % | omega2 ka % | omega2 CL % | omega2 V % | -2LL | error | (-2LL - exact) / error |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|"
for seed in $(seq 1 "${1:-20}"); do
  verdict=converged
  "$varda" fit "$work/model.toml" --output "$work" --seed "$seed" --quiet >/dev/null ||
    verdict="status $?"
  awk -F, -v seed="$seed" -v verdict="$verdict" -v iterations="$(number iterations)" \
    -v m2ll="$(number minus2ll_without_constant)" -v error="$(number minus2ll_mc_se)" '
    BEGIN {
      exact["ka"] = exp(0.4593008064); exact["CL"] = exp(1.011667347); exact["V"] = exp(3.453849849)
      exact["additive"] = 0.6959106537; exact["ka,ka"] = 0.4050944074
      exact["CL,CL"] = 0.07031499077; exact["V,V"] = 0.01848553116
    }
    NR > 1 {
      name = $1; value = $2
      if ($1 ~ /^"?omega/) {
        name = $1 "," $2; gsub(/"|omega|\(|\)/, "", name); value = $3
      }
      off[name] = 100 * (value / exact[name] - 1)
    }
    END {
      printf "| %d | %s | %d | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.4f | %.4f | %.1f |\n",
        seed, verdict, iterations, off["ka"], off["CL"], off["V"], off["additive"], off["ka,ka"],
        off["CL,CL"], off["V,V"], m2ll, error, (m2ll - 118.1009) / error
    }' "$work/estimates.csv"
done
