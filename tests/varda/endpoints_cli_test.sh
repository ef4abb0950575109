#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Endpoints that are not continuous, from outside: what the tables hold and leave empty, simulated
# data that are read again, threads and processes.
#   endpoints_cli_test.sh VARDA SOURCE_FOLDER [MPIEXEC]
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"
cp "$2"/tests/varda/endpoints/* .

# Column $2 of a CSV file $1, without its header.
column() {
  awk -F, -v name="$2" 'NR == 1 { for (k = 1; k <= NF; ++k) if ($k == name) at = k; next }
                        { print $at }' "$1"
}

expect_status 0 "a fit of counts" "$varda" fit poisson.toml --output one --threads 1 --report
grep -q 'Residual error' stdout && fail "page one shows a residual error where there is none"
[ -z "$(column one/rows.csv IWRES | tr -d '\n')" ] || fail "IWRES of counts is not empty"
[ "$(column one/rows.csv NPDE | grep -c .)" -eq 360 ] || fail "not every count has an NPDE"
[ "$(column one/rows.csv PRED | grep -c .)" -eq 360 ] || fail "not every count has a prediction"
expect_status 0 "the same with two threads" "$varda" fit poisson.toml --output two --threads 2
for file in estimates rows subjects; do
  cmp -s "one/$file.csv" "two/$file.csv" || fail "the number of threads shows in $file.csv"
done
if [ -n "${3:-}" ]; then
  expect_status 0 "the same with two processes" "$3" -n 2 "$varda" fit poisson.toml --output three
  cmp -s one/estimates.csv three/estimates.csv || fail "the number of processes shows"
fi

# EM's default number of points is enough for the coefficient of a formula.
{ cat poisson.toml && printf '\n[estimation]\nmethod = "em"\n'; } >em.toml
expect_status 0 "counts by EM" "$varda" fit em.toml --output em

# What is simulated can be fitted: to counts of the estimates, and to events at their own times.
expect_status 0 "simulated counts" "$varda" simulate one --output simulated.csv
sed 's/poisson.csv/simulated.csv/' poisson.toml >again.toml
expect_status 0 "their evaluation" "$varda" evaluate again.toml --output again
expect_status 0 "simulated events" "$varda" simulate weibull.toml --output events_again.csv
[ "$(sed 1d events_again.csv | wc -l)" -eq 120 ] || fail "not every subject has one row"
sed 's/events.csv/events_again.csv/' weibull.toml >events_again.toml
expect_status 0 "their check" "$varda" check events_again.toml

expect_status 0 "curves of events" "$varda" vpc weibull.toml -n 50 --output vpc.csv
[ "$(grep -c ',SURVIVAL,' vpc.csv)" -eq 101 ] || fail "the curve of events has not 101 times"
expect_status 0 "a check of counts by eye" "$varda" vpc poisson.toml -n 50 --output vpc.csv
grep -q ',P50,' vpc.csv || fail "counts have no percentiles"
expect_status 0 "predictions of events" "$varda" predict weibull.toml --times 0,5,10 --output p.csv
awk -F, 'NR > 1 && $1 == last && $5 < before { bad = 1 } { last = $1; before = $5 } END { exit bad }' p.csv ||
  fail "a cumulative hazard falls"

sed -e 's/^kind = .*/kind = "log-likelihood"/' \
  -e 's/^mean = .*/log_likelihood = "DV * log(base * exp(drug * TRT)) - base * exp(drug * TRT) - lgamma(DV + 1)"/' \
  poisson.toml >own.toml
expect_status 0 "a log-likelihood of the user's own" "$varda" fit own.toml --output own
[ -z "$(column own/rows.csv PRED | tr -d '\n')" ] || fail "a prediction that nobody gave is shown"
[ -z "$(column own/rows.csv NPDE | tr -d '\n')" ] || fail "an NPDE that cannot be computed is shown"
for name in base drug; do
  paste -d, <(grep "^$name," one/estimates.csv) <(grep "^$name," own/estimates.csv) |
    awk -F, '{ d = $2 / $9 - 1; exit !(d < 1e-6 && d > -1e-6) }' || fail "$name is not that of the built-in kind"
done
expect_status 2 "its simulation" "$varda" simulate own
grep -q 'E-SIM-ENDPOINT' stderr || fail "the message has another code"

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
