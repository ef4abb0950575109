#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# With the seeds 1 to 20 (or to $1): the worst deviation from exact results of
#   - evaluate at round parameters, 3,000 points: any subject's -2 log-likelihood, and their sum
#   - the standard errors of each kind after a fit, in per cent
# The exact results (tests/varda/reference) are from adaptive Gauss-Hermite quadrature.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
reference=$here/../../tests/varda/reference
varda=${VARDA:-$here/../../build/release/bin/varda}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
seeds=$(seq 1 "${1:-20}")

sed "s|^file = .*|file = \"$here/theophylline.csv\"|" "$here/theophylline.toml" >"$work/fit.toml"
sed "s/start = 1.2/start = 1.58/; s/start = 3.0/start = 2.75/; s/start = 35.0/start = 31.6/
  s/^ka = 0.3/ka = 0.40/; s/^CL = 0.3/CL = 0.07/; s/^V = 0.3/V = 0.0185/
  s/^additive = .*/additive = 0.70/; s/^samples = .*/samples = 3000/" "$work/fit.toml" >"$work/round.toml"

for seed in $seeds; do
  "$varda" evaluate "$work/round.toml" --output "$work/round" --seed "$seed" --quiet >/dev/null
  awk -F, 'FNR == 1 { next } FNR == NR { exact[$1] = $2; next }
    { d = $3 - exact[$1]; sum += d; if (d < 0) d = -d; if (d > worst) worst = d }
    END { print worst, (sum < 0 ? -sum : sum) }' "$reference/theophylline-round.csv" "$work/round/subjects.csv"
done | awk '{ if ($1 > s) s = $1; if ($2 > t) t = $2 }
  END { printf "evaluate: a subject is off by at most %.4f, the sum by at most %.4f\n", s, t }'

column=3
for kind in information score sandwich; do
  { cat "$work/fit.toml"; echo "standard_errors = \"$kind\""; } >"$work/kind.toml"
  for seed in $seeds; do
    "$varda" fit "$work/kind.toml" --output "$work/kind" --seed "$seed" --quiet >/dev/null
    # The reference's errors of log parameters are relative; omega(ka,ka) is om2(lka) there.
    awk -F, -v column="$column" '
      FNR == NR { exact[$1] = $column; next }
      FNR > 1 {
        quoted = $0 ~ /^"/
        estimate = quoted ? $3 : $2; se = quoted ? $5 : $4
        name = $1 == "additive" ? "sd_add" : quoted ? "om2(l" substr($1, 8) ")" : "l" $1
        if (name ~ /^l/) se /= estimate
        d = 100 * (se / exact[name] - 1); if (d < 0) d = -d; if (d > worst) worst = d
      }
      END { print worst }' "$reference/theophylline-additive.csv" "$work/kind/estimates.csv"
  done | sort -g | tail -1 | awk -v kind="$kind" '{ printf "standard errors from %s: at most %.1f %%\n", kind, $1 }'
  column=$((column + 1))
done
