#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The program from outside: exit statuses, output files, reproducibility.
#   cli_test.sh VARDA SOURCE_FOLDER
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"

same_results() {
  local file
  for file in {estimates,iterations,subjects,rows}.csv fit.{json,ext,phi,cov,cor} records.txt; do
    [ -e "$1/$file" ] || [ -e "$2/$file" ] || continue # no standard errors, no fit.cov
    cmp -s "$1/$file" "$2/$file" || fail "$1 and $2 differ in $file"
  done
}

expect_status 0 "a fit" "$varda" fit theophylline.toml --output one
grep -q '^Converged' stdout || fail "the summary has no verdict"
grep -Eq '^  ka +1\.5[78]' stdout || fail "the summary has no estimate of ka near 1.58"
for stage in iteration "NPDE, subject"; do
  grep -q "^$stage  *1\b" stderr || fail "no progress of $stage on the error stream"
done
[ -z "$(find . -name '*.part*' -o -name '*.new')" ] || fail "temporary files are left"
[ -z "$(awk 'length > 80' stdout)" ] || fail "page one is wider than 80 columns"
sha256sum -c --quiet <(sed -nE 's/^      "(name|sha256)": "([^"]*)".*/\2/p' one/manifest.json |
  paste - - | awk '{ print $2 "  one/" $1 }') || fail "the manifest does not hold"
cmp -s one/model-used.toml theophylline.toml || fail "the model file is not kept"
expect_status 0 "the same fit" "$varda" fit theophylline.toml --output two --quiet
# AddressSanitizer remarks that the searches of the start-up have stacks of their own.
grep -qv "^==[0-9]*==WARNING: ASan doesn't fully support" stderr &&
  fail "a quiet run writes on the error stream"
same_results one two
expect_status 0 "another seed" "$varda" fit theophylline.toml --output three --seed 2
cmp -s one/estimates.csv three/estimates.csv && fail "the seed changes nothing"

expect_status 0 "an evaluation" "$varda" evaluate theophylline.toml --output evaluated
grep -q '^CL,3,0,' evaluated/estimates.csv || fail "evaluate moved the parameters"
grep -q '"task": "evaluate"' evaluated/evaluate.json || fail "evaluate.json is wrong"

expect_status 2 "an evaluation into a fit's folder" "$varda" evaluate theophylline.toml --output one
expect_status 2 "a mistyped command" "$varda" fitt theophylline.toml
grep -q "did you mean 'fit'" stderr || fail "no suggestion: $(cat stderr)"

# Streams that take nothing cost neither the fit nor its files.
"$varda" fit theophylline.toml --output full >/dev/full 2>/dev/full
[ $? -eq 1 ] && [ -s full/page_one.txt ] || fail "a full standard output costs the results"
"$varda" fit theophylline.toml --output closed >stdout 2>&-
[ $? -eq 0 ] && grep -q '^Converged' stdout || fail "a closed error stream costs the fit"
"$varda" fit theophylline.toml --output piped 2>/dev/null | true
[ -s piped/fit.json ] || fail "a closed pipe costs the files"
rm -r full closed piped

expect_status 0 "without a folder" "$varda" fit theophylline.toml --quiet
same_results one theophylline-out

# Comparisons: the same observations under another model, and fewer of them.
sed 's/^error = .*/error = "combined"\nproportional = 0.1/' theophylline.toml >combined.toml
awk -F, 'NR == 1 || $2 > 0 || $5 == 1' theophylline.csv >late.csv
sed 's/^file = .*/file = "late.csv"/' theophylline.toml >late.toml
"$varda" fit combined.toml --quiet >/dev/null
"$varda" fit late.toml --quiet >/dev/null
expect_status 0 "a comparison" "$varda" compare one combined-out late-out --nested
grep -q '^NOT COMPARABLE WITH THE ABOVE: different observations: 120 instead of 132' stdout ||
  fail "other observations are not told apart"
tr -s ' \n' ' ' <stdout | grep -q 'on the boundary, 0: p = ' || fail "no remark on the boundary"
[ -z "$(awk 'length > 80' stdout)" ] || fail "a comparison is wider than 80 columns"
expect_status 0 "a comparison as JSON" "$varda" compare one combined-out --json
grep -q '"minus2ll_mc_se"' stdout || fail "the JSON of a comparison is empty"
expect_status 2 "a comparison with nothing" "$varda" compare one nothing
echo >>late-out/fit.json
expect_status 2 "a comparison with a changed fit" "$varda" compare one late-out

# Everything that was estimated is taken over as a start value: the exponent of a power error and the
# coefficients of levels too, so that an evaluation from there has the likelihood of the fit.
awk -F, 'NR == 1 { print $0 ",SEX"; next }
         $2 > 0 || $3 > 0 { print $0 "," ($1 % 3 == 0 ? "x" : $1 % 3 == 1 ? "male" : "female") }' theophylline.csv >levels.csv
sed -e 's/theophylline.csv/levels.csv/; /^additive/d' \
  -e 's/^CL = {.*/CL = { start = 3.0, covariates = [{ column = "SEX", effect = "categorical", reference = "male" }] }/' \
  -e 's/^error.*/error = "power"\nproportional = 0.3\nexponent = 0.8/' theophylline.toml >power.toml
expect_status 0 "a fit with power error" "$varda" fit power.toml --output power --quiet
grep -Eq '^Residual error +estimate ' stdout || fail "an exponent stands below SD"
expect_status 0 "its estimates as start values" "$varda" evaluate power.toml --from power --output taken --quiet
tr -s ' \n' ' ' <stdout | grep -q 'CL_SEX_female, CL_SEX_x, .*proportional, exponent' ||
  fail "not every estimate is a start value: $(grep -A3 'Start values' stdout)"
cat power/page_one.txt taken/page_one.txt | awk '/^-2 log-likelihood/ { value[++n] = $3 }
  END { d = value[1] - value[2]; exit !(n == 2 && d < 0.01 && d > -0.01) }' ||
  fail "the start values are not the estimates: $(grep -h '^-2 log-likelihood' power/page_one.txt taken/page_one.txt)"
sed 's/^error.*/error = "additive"\ndistribution = "student-t"\ndegrees_of_freedom = 5/' theophylline.toml >student.toml
expect_status 0 "Student's t" "$varda" evaluate student.toml --output student --quiet
grep -Eq '^Residual error +scale' stdout || fail "the scale of Student's t is called a deviation"

# Simulations: the same bytes by any number of threads, and a replicate can be fitted.
expect_status 0 "a simulation" "$varda" simulate one -n 3 --uncertainty --seed 4 --output by1.csv
expect_status 0 "by threads" "$varda" simulate one -n 3 --uncertainty --seed 4 --threads 3 --output by3.csv
cmp -s by1.csv by3.csv || fail "threads change a simulation"
awk -F, 'NR == 1 || $1 == 2' by1.csv >simulated.csv
sed 's/^file = .*/file = "simulated.csv"/' theophylline.toml >simulated.toml
expect_status 0 "a fit of a simulation" "$varda" fit simulated.toml --quiet
# With rules for rows, renamed columns and texts as levels, the same model file reads what it has
# simulated: rules that were followed are not followed again, others are.
awk -F, 'BEGIN { OFS = "," } NR == 1 { print "ID,HOURS,AMT,CONC,EVID,SEX,PART,COMMENT"; next }
         { print $1, $2, $3, $5 == 1 ? "." : $4, $5, $1 % 2 ? "male" : "female", NR % 20 ? "A" : "B", "x" }' theophylline.csv >rules.csv
sed -e 's/^file = .*/file = "rules.csv"\nkeep = "PART == \x27A\x27 \&\& (EVID == 1 || HOURS > 0)"\ndrop = "MINUTES > 1400"\ncolumns = { TIME = "MINUTES", DV = "LOGDV", MDV = "COMMENT2" }\n[data.define]\nMINUTES = "60 * HOURS"\nLOGDV = "log(CONC)"\nCOMMENT2 = "COMMENT == \x27y\x27"/' \
  -e 's/^CL = { start = 3.0 }/CL = { start = 0.05, covariates = [{ column = "SEX", effect = "categorical", reference = "male" }] }/' \
  -e 's/^ka = { start = 1.2 }/ka = { start = 0.02 }/' theophylline.toml >rules.toml
expect_status 0 "a simulation by rules" "$varda" simulate rules.toml --output ruled.csv
sed 's/^file = .*/file = "ruled.csv"/' rules.toml >ruled.toml
for model in rules ruled; do
  expect_status 0 "an evaluation by rules" "$varda" evaluate "$model.toml" --output "$model"
done
[ "$(cut -d, -f1,2 rules/rows.csv)" = "$(cut -d, -f1,2 ruled/rows.csv)" ] ||
  fail "what was simulated by rules has other rows"
sed 's/^drop = .*/drop = "MINUTES > 600"/' ruled.toml >dropped.toml
expect_status 0 "another rule" "$varda" evaluate dropped.toml --output dropped
[ "$(wc -l <dropped/rows.csv)" -lt "$(wc -l <ruled/rows.csv)" ] || fail "a rule that is new is passed over"
sed 's/^MINUTES = .*/MINUTES = "HOURS"/' ruled.toml >defined.toml
expect_status 2 "another definition" "$varda" evaluate defined.toml --output defined
grep -q 'E-DATA-HEADER' stderr || fail "a column is computed although the file has it"
expect_status 2 "uncertainty of a model file" "$varda" simulate theophylline.toml --uncertainty
# Predictions at the data are those of the fit.
expect_status 0 "predictions" "$varda" predict one
[ "$(cut -d, -f1,2,5,6 stdout | tail -n +2)" = "$(cut -d, -f1,2,7,8 one/rows.csv | tail -n +2)" ] ||
  fail "predictions are not those of rows.csv"
expect_status 0 "a curve" "$varda" predict one --times 0:24:6
[ "$(wc -l <stdout)" -eq 61 ] || fail "a grid of 5 times for 12 subjects has $(wc -l <stdout) lines"
printf 'ID,TIME,AMT,EVID\n1,0,320,1\n1,2,.,0\n' >design.csv
expect_status 0 "a design without DV" "$varda" simulate one --data design.csv -n 2
[ "$(wc -l <stdout)" -eq 5 ] || fail "the design has other rows: $(cat stdout)"
expect_status 0 "a visual predictive check" "$varda" vpc one -n 200 --output vpc.csv
[ "$(grep -c ',P50,' vpc.csv)" -eq 11 ] || fail "the bins are not those of the 11 sampling times"
expect_status 2 "a grid that is none" "$varda" predict one --times 0:24
cp theophylline.csv kept.csv
echo '12,30,0,1,0,60.5' >>theophylline.csv
expect_status 2 "data that have changed" "$varda" vpc one
mv kept.csv theophylline.csv

sed 's/^samples = 300/method = "em"/' theophylline.toml >em.toml
expect_status 0 "records on the terminal" "$varda" fit em.toml --output four --records
grep -q '^ atb from linear regression=' stdout || fail "the library's records are missing"
[ -e four/records.txt ] && fail "records are written although they were printed"

sed 's/^samples = 300/samples = 300\nmax_iterations = 2/' theophylline.toml >short.toml
expect_status 3 "too few iterations" "$varda" fit short.toml --output short
grep -q '^NOT CONVERGED' stdout || fail "an unfinished fit does not say so"
grep -q '"converged": false' short/fit.json || fail "fit.json of an unfinished fit"

# -2 log density of subject 1 at the start values by the closed form in Python.
expect_status 0 "a check" "$varda" check theophylline.toml
grep -Eq '^  1 +11 +74\.5249$' stdout || fail "the first evaluation is wrong: $(cat stdout)"
grep -q '^OK: 0 errors, 0 warnings' stdout || fail "no verdict of the check"
tr '\n' ' ' <stdout | tr -s ' ' |
  grep -Eq 'Memory: about [0-9]+ MB a process for the fit .[0-9]+ MB if .*, [0-9]+ MB more' ||
  fail "the check tells no memory: $(cat stdout)"
expect_status 0 "a check as JSON" "$varda" check theophylline.toml --json
grep -q '"dose_records": 12' stdout || fail "the JSON has no data summary"
sed 's/2.84/many/; s/10\.5/more/; s/^2,0.27,/2,8:30,/' theophylline.csv >wrong.csv
sed 's/^file = .*/file = "wrong.csv"/' theophylline.toml >wrong.toml
expect_status 2 "a check of bad data" "$varda" check wrong.toml --json
[ "$(grep -c '"code": "E-DATA-NUMBER"' stdout)" -eq 2 ] || fail "not every cause is listed"
grep -q "'many' is not a number, and 1 more like it (row [0-9]*)" stdout || fail "a cause is not counted"
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

# Diagnostics that do not fit into memory cost themselves alone. A sanitizer's runtime reserves more
# of the address space than any limit leaves.
if ! grep -q __asan_init "$varda"; then
  awk -F, 'NR == 1 || $5 == 1 { print; next } { for (i = 0; i < 10; ++i) print }' \
    theophylline.csv >many.csv
  for n in 0 100000; do
    sed "s/^file = .*/file = \"many.csv\"/; s/^samples = .*/npde_samples = $n/" \
      theophylline.toml >many-$n.toml
  done
  expect_status 0 "without NPDE" "$varda" fit many-0.toml --quiet
  # shellcheck disable=SC2016
  expect_status 0 "NPDE beyond the limit" bash -c 'ulimit -v 200000 && exec "$@"' limited \
    "$varda" fit many-100000.toml --quiet --threads 1
  grep -q 'W-RUN-MEMORY' stdout && grep -q 'the NPDE are left out: about [0-9]* MB' stdout ||
    fail "nobody tells that the NPDE are missing: $(cat stdout)"
  for file in estimates.csv subjects.csv rows.csv fit.cov; do
    cmp -s many-0-out/$file many-100000-out/$file || fail "missing NPDE change $file"
  done
fi

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
tr -s ' \n' ' ' <stdout | grep -q 'error E-RUN-START.*, and 11 more like it (rows' ||
  fail "not every subject is evaluated"
[ "$(grep -c ' failed$' stdout)" -eq 12 ] || fail "the table does not name who failed"
expect_status 2 "a model that cannot start" "$varda" fit prop.toml --output none
grep -q 'row 3.*subject 1: error E-RUN-START' stderr || fail "the first row at fault is not named"
sed 's/^error = .*/error = "box-cox"\nlambda = 0.5/' theophylline.toml >boxcox.toml
expect_status 2 "values that cannot be transformed" "$varda" fit boxcox.toml --output none
grep -q 'row 3.*subject 1: error E-RUN-START' stderr || fail "the first row without transform is not named"
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
