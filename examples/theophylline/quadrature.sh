#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The ladder of nodes: adaptive Gauss-Hermite quadrature at round parameters with the nodes per
# random effect given, or the usual ones. For each: the largest deviation of a subject's
# -2 log-likelihood and the deviation of their sum from exact results, and the seconds that all
# subjects took, with their modes, the best of five runs; then how far one node is from Laplace's approximation.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
reference=$here/../../tests/varda/reference/theophylline-round.csv
varda=${VARDA:-$here/../../build/release/bin/varda}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sed "s|^file = .*|file = \"$here/theophylline.csv\"|
  s/start = 1.2/start = 1.58/; s/start = 3.0/start = 2.75/; s/start = 35.0/start = 31.6/
  s/^ka = 0.3/ka = 0.40/; s/^CL = 0.3/CL = 0.07/; s/^V = 0.3/V = 0.0185/
  s/^additive = .*/additive = 0.70/" "$here/theophylline.toml" >"$work/round.toml"

# deviations COLUMN: the worst of a subject and the sum's, from that column of the exact results.
deviations() {
  awk -F, -v column="$1" 'FNR == 1 { next } FNR == NR { exact[$1] = $column; next }
    { d = $NF - exact[$1]; sum += d; if (d < 0) d = -d; if (d > worst) worst = d }
    END { printf "%.6f | %.6f", worst, (sum < 0 ? -sum : sum) }' "$reference" "$work/out/subjects.csv"
}

evaluate() {
  { cat "$work/round.toml"; printf 'likelihood = "agq"\nagq_nodes = %d\n' "$1"; } >"$work/agq.toml"
  "$varda" evaluate "$work/agq.toml" --output "$work/out" --quiet >/dev/null
}

echo "| nodes | points per subject | worst subject | sum | seconds |"
echo "|---|---|---|---|---|"
for nodes in ${*:-1 3 5 7 9 11 15 21 31}; do
  seconds=$(for _ in 1 2 3 4 5; do
    evaluate "$nodes"
    sed -n 's/^    "quadrature": \([0-9.e-]*\),*$/\1/p' "$work/out/evaluate.json"
  done | sort -g | head -1)
  printf '| %d | %d | %s | %.4f |\n' "$nodes" $((nodes ** 3)) "$(deviations 2)" "$seconds"
done
evaluate 1
worst=$(deviations 3)
echo
echo "one node against Laplace's approximation: a subject is off by at most ${worst%% *}"
