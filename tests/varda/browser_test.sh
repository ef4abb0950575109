#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The report in a browser: browser_test.sh VARDA SOURCE_FOLDER [CHROMIUM]
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"
chromium=${3:-chromium}

cp "$example"/weight.toml .
sed 's|^7,|<script>alert(7)</script>,|' "$example"/theophylline.csv >theophylline.csv
"$varda" fit weight.toml --output run --report --quiet >/dev/null || fail "a fit with its report"

# browse URL: the page after its scripts have run, the browser's messages in "console", whatever it
# asks the network for in "network.json".
browse() {
  "$chromium" --headless --no-sandbox --disable-gpu --disable-background-networking --no-first-run \
    --user-data-dir="$work/profile" --enable-logging=stderr --log-net-log="$work/network.json" \
    --virtual-time-budget=20000 --dump-dom "$1" 2>>console
}

browse "file://$work/run/report.html" >plain.html
browse "file://$work/run/report.html#subject=%3Cscript%3Ealert(7)%3C%2Fscript%3E" >opened.html

# expect_at_least COUNT PATTERN WHAT
expect_at_least() {
  local found
  found=$(grep -o "$2" plain.html | wc -l)
  [ "$found" -ge "$1" ] || fail "$3: $found instead of $1"
}

expect_at_least 45 '<svg' "drawings"
expect_at_least 1800 'class="point' "points"
expect_at_least 12 'class="band"' "bands"
# No drawing without a mark in it.
empty=$(tr -d '\n' <plain.html | grep -o '<svg.*' | sed 's|</svg>|&\n|g' | grep '<svg' |
  grep -vc 'class="\(point\|bar\|fitted\|observed\|band\)')
[ "$empty" -eq 0 ] || fail "$empty drawings are empty"

grep -q '<aside id="subject" hidden' plain.html || fail "a subject is open without a link"
grep -q '<h2 id="subject-name">Subject &lt;script&gt;alert(7)&lt;/script&gt;</h2>' opened.html ||
  fail "a link does not open its subject, or the name is not text"
grep -q '<script>alert' plain.html opened.html && fail "a name has become markup"

# A click, in a copy of the page that clicks on a point by itself.
sed 's|^</body>|<script>document.querySelector("#predictions .point[data-subject=\\"3\\"]")\
.dispatchEvent(new MouseEvent("click", {bubbles: true}));</script></body>|' run/report.html >clicking.html
browse "file://$work/clicking.html" | grep -q '<h2 id="subject-name">Subject 4</h2>' ||
  fail "a click does not open the subject"

# Two endpoints: plots of both, for the population and for each subject.
"$varda" fit "$2/examples/turnover/turnover.toml" --output turnover --report --quiet >/dev/null ||
  fail "a fit of two endpoints with its report"
browse "file://$work/turnover/report.html" >turnover.html
for endpoint in concentration response; do
  [ "$(grep -o ">subject [0-9]*, $endpoint<" turnover.html | wc -l)" -eq 24 ] ||
    fail "not every subject has a plot of its $endpoint"
done

if grep -Eo '"url":"(https?|wss?)://[^"]*' network.json | grep -v 'google\|gstatic\|chromium\|gvt' |
  grep -q .; then
  fail "the page asks the network: $(grep -Eo '"url":"https?://[^"]*' network.json | head -3)"
fi

grep -q 'CONSOLE' console && fail "messages on the console: $(grep CONSOLE console | head -3)"

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
