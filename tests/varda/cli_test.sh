#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The program from outside: exit statuses, output files, reproducibility.
#   cli_test.sh VARDA SOURCE_FOLDER
set -uo pipefail

varda=$1
example=$2/examples/theophylline
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$example"/theophylline.{toml,csv} "$work"
cd "$work" || exit 1
failures=0

fail() {
  echo "FAILED: $1"
  failures=$((failures + 1))
}

# expect_status WANTED WHAT COMMAND...
expect_status() {
  local wanted=$1 what=$2
  shift 2
  "$@" >stdout 2>stderr </dev/null
  local got=$?
  [ "$got" -eq "$wanted" ] || fail "$what: status $got instead of $wanted: $(head -c 300 stderr)"
}

# The JSON without its object of times.
without_times() { sed '/"times": {/,/}/d' "$1"; }

same_results() {
  local file
  for file in {estimates,iterations,subjects,rows}.csv fit.{ext,phi,cov,cor} records.txt; do
    [ -e "$1/$file" ] || [ -e "$2/$file" ] || continue # no standard errors, no fit.cov
    cmp -s "$1/$file" "$2/$file" || fail "$1 and $2 differ in $file"
  done
  [ "$(without_times "$1/fit.json")" = "$(without_times "$2/fit.json")" ] ||
    fail "$1 and $2 differ in fit.json"
}

expect_status 0 "a fit" "$varda" fit theophylline.toml --output one
grep -q '^Converged' stdout || fail "the summary has no verdict"
grep -Eq '^  ka +1\.5[78]' stdout || fail "the summary has no estimate of ka near 1.58"
for stage in iteration "NPDE, subject"; do
  grep -q "^$stage  *1\b" stderr || fail "no progress of $stage on the error stream"
done
[ -z "$(find one -name '*.tmp*')" ] || fail "temporary files are left"
expect_status 0 "the same fit" "$varda" fit theophylline.toml --output two --quiet
[ -s stderr ] && fail "a quiet run writes on the error stream"
same_results one two
expect_status 0 "another seed" "$varda" fit theophylline.toml --output three --seed 2
cmp -s one/estimates.csv three/estimates.csv && fail "the seed changes nothing"

expect_status 0 "an evaluation" "$varda" evaluate theophylline.toml --output evaluated
grep -q '^CL,3,0,' evaluated/estimates.csv || fail "evaluate moved the parameters"
grep -q '"task": "evaluate"' evaluated/evaluate.json || fail "evaluate.json is wrong"

sed 's/^samples = 300/method = "em"/' theophylline.toml >em.toml
expect_status 0 "records on the terminal" "$varda" fit em.toml --output four --records
grep -q '^standard errors, subject  *1\b' stderr || fail "no progress of standard errors"
grep -q '^ atb from linear regression=' stdout || fail "the library's records are missing"
[ -e four/records.txt ] && fail "records are written although they were printed"

sed 's/^samples = 300/samples = 300\nmax_iterations = 2/' theophylline.toml >short.toml
expect_status 3 "too few iterations" "$varda" fit short.toml --output short
grep -q '^NOT CONVERGED' stdout || fail "an unfinished fit does not say so"
grep -q '"converged": false' short/fit.json || fail "fit.json of an unfinished fit"

# -2 log density of subject 1 at the start values by the closed form in Python.
expect_status 0 "a check" "$varda" check theophylline.toml
grep -Eq '^  1 +11 +74\.5249$' stdout || fail "the first evaluation is wrong: $(cat stdout)"
grep -q '^Sound: 0 errors, 0 warnings' stdout || fail "no verdict of the check"
expect_status 0 "a check as JSON" "$varda" check theophylline.toml --json
grep -q '"dose_records": 12' stdout || fail "the JSON has no data summary"
sed 's/2.84/many/; s/10\.5/more/; s/^2,0.27,/2,8:30,/' theophylline.csv >wrong.csv
sed 's/^file = .*/file = "wrong.csv"/' theophylline.toml >wrong.toml
expect_status 2 "a check of bad data" "$varda" check wrong.toml --json
[ "$(grep -c '"code": "E-DATA-NUMBER"' stdout)" -eq 3 ] || fail "not every error is listed"
grep -q '"column": "TIME"' stdout && grep -q '8:30 is 8.5' stdout || fail "an error lacks its place"
expect_status 2 "a check without a model" "$varda" check nothing.toml
sed '/^\[omega\]/,/^V =/d' theophylline.toml >full.toml
cat >>full.toml <<'END'
[omega]
blocks = [{ parameters = ["ka", "CL", "V"], matrix = [[0.3], [0, 0.3], [0, 0, 0.3]] }]
END
expect_status 3 "a likelihood without a maximum" "$varda" fit full.toml --output full
grep -q '^OMEGA IS SINGULAR' stdout || fail "a singular omega is not named"
[ -e full/fit.cov ] && fail "a singular omega leaves a covariance of the estimates"

expect_status 2 "no such model file" "$varda" fit nothing.toml --output none
sed 's/^file = .*/file = "nothing.csv"/' theophylline.toml >nodata.toml
expect_status 2 "no such data" "$varda" fit nodata.toml --output none
sed 's/2.84/many/' theophylline.csv >bad.csv
sed 's/^file = .*/file = "bad.csv"/' theophylline.toml >bad.toml
expect_status 2 "a field that is not a number" "$varda" fit bad.toml --output none
grep -q 'bad.csv, row 4, column DV, subject 1: error E-DATA-NUMBER' stderr ||
  fail "the place of a bad field is not named: $(cat stderr)"
sed 's/^error = .*/error = "proportional"\nproportional = 0.2/; /^additive/d' theophylline.toml >prop.toml
expect_status 2 "a check of it" "$varda" check prop.toml
[ "$(grep -c 'error E-RUN-START' stdout)" -eq 12 ] || fail "not every subject is evaluated"
expect_status 2 "a model that cannot start" "$varda" fit prop.toml --output none
grep -q 'row 3.*subject 1: error E-RUN-START' stderr || fail "the first row at fault is not named"
expect_status 2 "no command" "$varda"
expect_status 2 "a seed out of range" "$varda" fit theophylline.toml --output none --seed 2147483648
expect_status 2 "an unknown option" "$varda" fit theophylline.toml --output none --frobnicate
[ -e none ] && fail "a refused run wrote something"
: >occupied
expect_status 2 "an output folder that is a file" "$varda" fit theophylline.toml --output occupied
grep -q 'E-RUN-OUTPUT' stderr || fail "the folder is not named"
expect_status 0 "the version" "$varda" --version

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
