#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# varda new from outside: new_test.sh VARDA SOURCE_FOLDER
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"

# minus2ll FOLDER: the -2 log-likelihood of a fit.
minus2ll() { sed -n 's/^ *"minus2ll": *\([-0-9.]*\).*/\1/p' "$1/fit.json" | head -n 1; }
# expect_at_most WHAT FOUND LIMIT
expect_at_most() {
  awk -v found="$2" -v limit="$3" 'BEGIN { exit !(found != "" && found <= limit) }' ||
    fail "$1: $2 is above $3"
}
# expect_says WHAT PART
expect_says() { grep -q -- "$2" stderr || fail "$1 says: $(cat stderr)"; }

expect_status 0 "the list" "$varda" new --list
for name in "one-compartment oral" "three-compartment zero-order" "two-compartment transit" "  emax"; do
  grep -q "$name\$" stdout || fail "the list has no $name"
done
expect_status 0 "a description" "$varda" new --list "one-compartment transit"
grep -q 'arriving = ' stdout && grep -q 'MTT .*mean transit time' stdout || fail "a poor description"

# A draft from data is as good as the example: the same likelihood with the same error, no worse one
# with the error that varda chooses (additive is a special case of combined).
expect_status 0 "a draft" "$varda" new "one-compartment oral" --data theophylline.csv --output first.toml
expect_says "a draft" "12 subjects, 12 doses (12 records), 132 observations"
expect_says "a draft" "not used, possibly covariates: WT"
expect_status 2 "a draft over a file" "$varda" new "one-compartment oral" --output first.toml
expect_says "a draft over a file" "E-RUN-OUTPUT"
expect_status 0 "a check of the draft" "$varda" check first.toml
expect_status 0 "a fit of the draft" "$varda" fit first.toml --quiet
"$varda" fit theophylline.toml --quiet --output example >/dev/null
expect_at_most "the draft's fit" "$(minus2ll first-out)" "$(awk -v x="$(minus2ll example)" 'BEGIN { print x + 0.05 }')"
mkdir -p models data
cp theophylline.csv data/
expect_status 0 "a draft with the example's error" "$varda" new "one-compartment oral" \
  --data data/theophylline.csv --error additive --output models/additive.toml
expect_status 0 "its fit" "$varda" fit models/additive.toml --quiet --output additive
same=$(awk -v x="$(minus2ll additive)" -v y="$(minus2ll example)" 'BEGIN { print (x - y) ^ 2 < 0.0025 }')
[ "$same" = 1 ] || fail "-2 log-likelihood $(minus2ll additive) instead of $(minus2ll example)"

# Another kind of data, its columns under other names, decimal separators aside.
cp "$2"/examples/indomethacin/indomethacin.{csv,toml} .
sed '1s/DV/CONC/; 1s/AMT/DOSE/' indomethacin.csv | tr ',' ';' >renamed.csv
expect_status 2 "unknown columns" "$varda" new "two-compartment intravenous" --data renamed.csv
expect_says "unknown columns" "E-DATA-COLUMN"
expect_status 0 "named columns" "$varda" new "two-compartment intravenous" --data renamed.csv \
  --column dv=CONC --column AMT=DOSE --output second.toml
grep -q '^error = "proportional"' second.toml || fail "another error than the example's"
expect_status 0 "a check of it" "$varda" check second.toml
"$varda" fit second.toml --quiet --output second >/dev/null
"$varda" fit indomethacin.toml --quiet --output reference >/dev/null
expect_at_most "the second fit" "$(minus2ll second)" "$(awk -v x="$(minus2ll reference)" 'BEGIN { print x + 0.1 }')"

# A text as the only DVID, infusions, additional doses, a censored value, other columns.
{
  echo 'SUBJ;TIME;CONC;AMT;RATE;ADDL;II;CENS;NOTE;DVID'
  for i in 1 2 3 4 5; do
    printf '%s\n' "$i;0;.;100;50;2;12;0;a;." "$i;1;3.$i;.;.;.;.;0;b;pk" "$i;4;2.$i;.;.;.;.;0;;pk" \
      "$i;11;0.9$i;.;.;.;.;0;;pk" "$i;26;3.$i;.;.;.;.;0;;pk" "$i;60;0.1;.;.;.;.;1;;pk"
  done
} >odd.csv
expect_status 0 "odd data" "$varda" new "one-compartment intravenous" --data odd.csv \
  --column ID=SUBJ --column DV=CONC --output odd.toml
expect_says "odd data" "5 subjects, 15 doses (5 records), 25 observations"
expect_status 0 "a check of odd data" "$varda" check odd.toml
expect_status 2 "infusions into an absorption of its own" "$varda" new "one-compartment transit" \
  --data odd.csv --column ID=SUBJ --column DV=CONC
expect_says "infusions into an absorption" "row 2, column RATE, subject 1: error E-DATA-DOSE"
expect_status 2 "no such folder" "$varda" new "one-compartment oral" --data theophylline.csv --output no/x.toml
expect_says "no such folder" "E-RUN-OUTPUT"

# The same model as text, and without data.
expect_status 0 "equations" "$varda" new "one-compartment oral" --equations --data theophylline.csv \
  --error additive --output text.toml
grep -q '^depot = "-ka \* depot"' text.toml || fail "no equations in the file"
expect_status 0 "a check of equations" "$varda" check text.toml
diff <(grep start models/additive.toml) <(grep start text.toml) >/dev/null || fail "other start values as text"
for name in "one-compartment weibull" "two-compartment target-mediated-qss oral" \
  "one-compartment oral + myelosuppression" "tumour-growth gompertz" "two-compartment zero-order"; do
  rm -f plain.toml
  expect_status 0 "$name" "$varda" new "$name" --output plain.toml
  printf 'ID,TIME,DV,AMT,DVID\n1,0,.,100,.\n1,1,5,.,1\n' >data.csv
  case $name in *growth*) printf 'ID,TIME,DV\n1,0,9\n1,1,10\n' >data.csv ;; esac
  expect_status 0 "a check of $name" "$varda" check plain.toml
done

# Of two sets of parameters with the same curves, the one with the faster absorption.
rm -f plain.toml
expect_status 0 "three compartments" "$varda" new "three-compartment oral" --output plain.toml
{
  echo "ID,TIME,DV,AMT"
  for subject in $(seq 12); do
    echo "$subject,0,.,100"
    for time in 0.25 0.5 1 1.5 2 3 4 6 8 12 16 24 36 48 72 96 144 192; do echo "$subject,$time,1,."; done
  done
} >data.csv
for seed in 6 8 23; do
  expect_status 0 "their data" "$varda" simulate plain.toml -n 1 --seed "$seed" --output simulated.csv
  expect_status 0 "their draft" "$varda" new "three-compartment oral" --data simulated.csv
  awk '$1 == "ka" && $2 == "=" && $3 == "{" { found = $6 > 0.8 } END { exit !found }' stdout ||
    fail "of two sets the draft has the one with slow absorption"
done

# Two endpoints, one of them alone, and what cannot be drafted.
cp "$2/examples/turnover/turnover.csv" .
response="one-compartment oral + indirect-response inhibition-of-production"
expect_status 0 "two endpoints" "$varda" new "$response" --data turnover.csv --output turnover.toml
grep -q '^dvid = 2' turnover.toml || fail "the second endpoint is missing"
expect_status 0 "a check of two endpoints" "$varda" check turnover.toml
expect_status 2 "too few endpoints" "$varda" new "$response" --data theophylline.csv
expect_says "too few endpoints" "E-NEW-ENDPOINTS.*--outputs"
expect_status 0 "the response alone" "$varda" new "$response" --data theophylline.csv --outputs response
grep -q '^outputs = \["response"\]' stdout || fail "no choice of outputs"
for refused in "E-NEW-STRUCTURE one-compartment.orl" "E-MODEL-COMBINATION emax.+.one-compartment.oral" \
  "E-NEW-OPTION emax --outputs concentration" "E-NEW-OPTION emax --error normal" \
  "E-NEW-OPTION emax --column DV=X" "E-NEW-OPTION emax --data turnover.csv --column X=Y" \
  "E-NEW-OPTION one-compartment.zero-order --equations" "E-DATA-FILE emax --data none.csv"; do
  read -r code name options <<<"$refused"
  # shellcheck disable=SC2086
  expect_status 2 "$refused" "$varda" new "${name//./ }" $options
  expect_says "$refused" "$code"
done
[ -z "$(find . -name '*.part')" ] || fail "temporary files are left"
exit $((failures > 0))
