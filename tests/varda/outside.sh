# SPDX-License-Identifier: Apache-2.0
#
# What tests of the program from outside have in common; sourced with their arguments, VARDA and
# SOURCE_FOLDER. The work goes on in a new folder with the theophylline example in it.
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
  [ "$got" -eq "$wanted" ] || fail "$what: status $got instead of $wanted: $(head -c 600 stderr)"
}
