#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
#   bench/kills.sh [COUNT]
#
# Kills fits of theophylline at random moments, COUNT times (100), each into the folder of the one
# before. After each kill the folder must hold the results of one run: every file as its manifest
# says, no result that it does not list, and a user's file as it was. Prints how many kills came
# before the run's end and how many left a working folder behind.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
varda=${VARDA:-$here/../build/release/bin/varda}
count=${1:-100}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$here"/../examples/theophylline/theophylline.{toml,csv} "$work"
cd "$work"

"$varda" fit theophylline.toml --output out --quiet >/dev/null
echo mine >out/notes.txt
# The longest pause: a fit's time and a little more.
longest=$(( $(sed -n 's/^ *"total": \([0-9.]*\).*/\1/p' out/run.json | awk '{ print int($1 * 1300) }') + 20 ))
killed=0
left=0
for ((k = 1; k <= count; ++k)); do
  # Every other fit without standard errors, so that the lists of files differ.
  cp theophylline.toml run.toml
  if ((k % 2)); then echo 'standard_errors = "none"' >>run.toml; fi
  "$varda" fit run.toml --output out --seed "$k" --quiet >/dev/null 2>&1 &
  run=$!
  sleep "$(awk -v seed="$RANDOM" -v most="$longest" 'BEGIN { printf "%.4f", seed / 32768 * most / 1000 }')"
  if kill -KILL "$run" 2>/dev/null; then killed=$((killed + 1)); fi
  wait "$run" 2>/dev/null || true
  if [ -e out.part ]; then left=$((left + 1)); fi

  sed -nE 's/^      "(name|sha256)": "([^"]*)".*/\2/p' out/manifest.json | paste - - >listed
  awk '{ print $2 "  out/" $1 }' listed | sha256sum -c --quiet || { echo "kill $k: two runs are mixed"; exit 1; }
  { cut -f1 listed; echo manifest.json; echo notes.txt; } | sort >wanted
  ls -A out | sort | diff wanted - || { echo "kill $k: a file too many or too few"; exit 1; }
  [ "$(cat out/notes.txt)" = mine ] || { echo "kill $k: a user's file is lost"; exit 1; }
done
"$varda" fit theophylline.toml --output out --quiet >/dev/null
if [ -e out.part ]; then echo "the last run leaves a working folder"; exit 1; fi
echo "$killed of $count runs were killed before their end, $left of them left a working folder behind;"
echo "the results were those of one run every time"
