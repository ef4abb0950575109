#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
#   bench/resumes.sh [COUNT]
#
# Kills fits at random moments, COUNT times (60) altogether, takes each up again as often as it was
# killed, and compares every byte with the fit that nobody disturbed: Newton's method and the EM
# algorithm on theophylline, at one and (with mpirun in the path) at two processes, the number
# changing from one session to the next. Prints how many kills came in which stage.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
varda=${VARDA:-$here/../build/release/bin/varda}
count=${1:-60}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$here"/../examples/theophylline/theophylline.{toml,csv} "$work"
cd "$work"
export OMPI_MCA_rmaps_base_oversubscribe=1

sed 's/^samples = 300/samples = 300\nstarts = 3\nnpde_samples = 2000\ncheckpoint = 0\nlikelihood = "agq"/' \
  theophylline.toml >newton.toml
sed 's/^samples = 300/samples = 600\nmethod = "em"\nnpde_samples = 2000\ncheckpoint = 0/
  s/^error = .*/error = "combined"\nproportional = 0.1/' theophylline.toml >em.toml

processes_below() {
  local pid
  for pid in $(pgrep -P "$1"); do
    processes_below "$pid"
    echo "$pid"
  done
}
random() { awk -v a="$RANDOM" -v most="$1" 'BEGIN { printf "%.4f", a / 32768 * most }'; }

declare -A killed=() # by stage
kills=0
fits=0
sessions=0
without_state=0
for method in newton em; do
  "$varda" fit $method.toml --output whole-$method --quiet >/dev/null 2>&1 || true
  longest=$(sed -n 's/^ *"total": \([0-9.]*\).*/\1/p' whole-$method/run.json)
  if [ $method = newton ]; then wanted=$((count / 2)); else wanted=$count; fi
  while [ "$kills" -lt "$wanted" ]; do
    rm -rf out out.part
    fits=$((fits + 1))
    while :; do
      resume=()
      if [ -e out.part/run.state ]; then resume=(--resume); else rm -rf out.part; fi
      launch=()
      if command -v mpirun >/dev/null && ((RANDOM % 3 == 0)); then launch=(mpirun -n 2); fi
      sessions=$((sessions + 1))
      "${launch[@]}" "$varda" fit $method.toml --output out --threads $((RANDOM % 2 + 1)) "${resume[@]}" \
        >stdout 2>progress </dev/null &
      run=$!
      sleep "$(random "$longest")"
      for pid in $(processes_below "$run") "$run"; do kill -KILL "$pid" 2>/dev/null || true; done
      status=0
      wait "$run" 2>/dev/null || status=$?
      for _ in $(seq 200); do # a process under mpirun may end a little later
        if ! [ -e out.part ] || flock -n out.part true; then break; fi
        sleep 0.05
      done
      if [ "$status" -ne 137 ]; then break; fi
      kills=$((kills + 1))
      stage=$(tail -n 1 progress | sed 's/^\([a-zA-Z]*\).*/\1/')
      killed[${stage:-reading}]=$((${killed[${stage:-reading}]:-0} + 1))
      [ -e out.part/run.state ] || without_state=$((without_state + 1))
    done
    if [ "$status" -ne 0 ] && [ "$status" -ne 3 ]; then
      echo "status $status: $(tail -n 3 progress)"
      exit 1
    fi
    for file in whole-$method/*; do
      file=${file##*/}
      case $file in
        run.json | manifest.json) ;;
        page_one.txt)
          cmp <(sed '/^Time: /,$d' whole-$method/$file) <(sed '/^Time: /,$d' out/$file) ||
            { echo "$method: page one differs"; exit 1; }
          ;;
        *) cmp "whole-$method/$file" "out/$file" || { echo "$method: $file differs"; exit 1; } ;;
      esac
    done
    diff <(ls -A whole-$method) <(ls -A out)
    if [ -e out.part ]; then echo "a working folder stays"; exit 1; fi
  done
done
echo "$fits fits in $sessions sessions, $kills of which were killed ($without_state before the first state)."
echo "Kills by the stage that was shown last:"
for stage in "${!killed[@]}"; do printf '  %-12s %3d\n' "$stage" "${killed[$stage]}"; done
echo "All results are those of the undisturbed fits, byte for byte."
