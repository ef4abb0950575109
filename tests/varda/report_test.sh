#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The report of a fit, without a browser: report_test.sh VARDA SOURCE_FOLDER CHECKER
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"
checker=$3

sed 's|^7,|<script>alert(7)</script>,|' "$example"/theophylline.csv >theophylline.csv
"$varda" fit theophylline.toml --output run --report --quiet >stdout || fail "a fit with its report"
grep -q '^Report in run/report.html' stdout || fail "it is not said where the report is"
"$checker" run || fail "the report is not that of the run"

"$varda" report run >/dev/null || fail "a report on its own"
"$varda" report run --threads 3 --output threads.html >/dev/null || fail "a report elsewhere"
cmp run/report.html threads.html || fail "threads change the report"
[ ! -e run.part ] || fail "a working folder is left"

# A report belongs to its run: the next one replaces it.
"$varda" fit theophylline.toml --output run --quiet >/dev/null || fail "a fit over one with a report"
[ ! -e run/report.html ] || fail "the report of an earlier fit is left"
echo mine >run/report.html
"$varda" report run 2>stderr
[ $? -eq 2 ] || fail "a file of the user's is replaced"
[ "$(cat run/report.html)" = mine ] || fail "a file of the user's is lost"
rm run/report.html

sed -i 's/^1,0.25,0,2.84/1,0.25,0,2.85/' theophylline.csv
"$varda" report run 2>stderr
[ $? -eq 2 ] && grep -q E-RUN-DATA stderr || fail "other data are not refused"
"$varda" report nowhere 2>stderr
[ $? -eq 2 ] && grep -q E-RUN-FOLDER stderr || fail "a folder that is not there is not refused"

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
