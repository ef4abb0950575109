#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Several processes and threads from outside: the same bytes for any number of them, and ends in
# order where something goes wrong.
#   processes_test.sh VARDA SOURCE_FOLDER [MPIEXEC]
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"
mpiexec=${3:-}

same_results() {
  local file
  for file in {estimates,iterations,subjects,rows}.csv {fit,evaluate}.{json,ext,phi} fit.{cov,cor} \
    records.txt; do
    [ -e "$1/$file" ] || [ -e "$2/$file" ] || continue # no standard errors, no fit.cov
    cmp -s "$1/$file" "$2/$file" || fail "$1 and $2 differ in $file"
  done
}

# Updates without a closed form, presampling, a look at modes in between, quadrature, and a subject
# without observations.
{ cat theophylline.csv; echo "13,0,300,0,1,70"; } >sparse.csv
sed 's/^file = .*/file = "sparse.csv"/; s/^samples = .*/samples = 96\nmethod = "em"/
  s/^error = .*/error = "combined"\nproportional = 0.1/' theophylline.toml >em.toml
cat >>em.toml <<'END'
start = "presample"
map_np = 2
map_assist = 3
max_iterations = 12
npde_samples = 200
likelihood = "agq"
agq_nodes = 5
END
sed 's/"combined"/"additive"/; /^proportional/d; /^start/d; /^map_/d' em.toml >closed.toml
# Few observations: a fit that mends subjects, of which some are without observations.
awk -F, '$1 ~ /^[38]$/ && $5 == 1 { print 100 + $1 ",0,300,0,1,70" }
  NR == 1 || $5 == 1 || (++seen[$1] + $1) % 4 == 0' theophylline.csv >few.csv
sed 's/^file = .*/file = "few.csv"/' theophylline.toml >mended.toml
# A parameter without a random effect from afar: samples are carried along with it.
awk 'BEGIN { OFS = ","; print "ID,TIME,AMT,DV,EVID,DVID"
  for (i = 1; i <= 6; ++i) { print i, 0, 100 * 4 ^ (i % 3), ".", 1, "."
    for (t = 1; t <= 24; t *= 2) print i, t, ".", 1, 0, 1
    for (t = 30; t <= 72; t += 6) print i, t, ".", 1, 0, 2 } }' >data.csv
"$varda" new "one-compartment oral + tumour-growth inhibition" --output carried.toml
sed -i 's/= 0.2$/= 0.06/; s/^proportional = .*/proportional = 0.1/' carried.toml
"$varda" simulate carried.toml -n 1 --output simulated.csv
sed -Ei 's/data.csv/simulated.csv/; s/^((KD|resistance) = \{ start = )[0-9.]*/\10.1/' carried.toml
printf '[estimation]\nmax_iterations = 2\n' >>carried.toml
# Threads share the points of a subject where the model is costly.
{ cat "$example"/equations.toml; printf '\n[estimation]\nsamples = 100\nnpde_samples = 100\n'; } >ode.toml

# cases: name, command, model file, numbers of processes
cases=("newton fit theophylline.toml 1 2 3 4" "em fit em.toml 1 2 3 4" "closed fit closed.toml 2 3"
  "mended fit mended.toml 2 3" "carried fit carried.toml 2"
  "evaluated evaluate theophylline.toml 1 2 3 4" "ode evaluate ode.toml 3")
for entry in "${cases[@]}"; do
  read -r name command model counts <<<"$entry"
  "$varda" "$command" "$model" --output "$name" --quiet --threads 1 >stdout 2>stderr
  [ -s "$name/subjects.csv" ] || fail "no results of $name: $(cat stderr)"
  "$varda" "$command" "$model" --output "$name.2" --quiet --threads 2 >stdout 2>stderr
  same_results "$name" "$name.2"
done
grep -q '"quadrature": {' em/fit.json || fail "no quadrature in fit.json"
grep -q '1 thread' stdout && fail "two threads are called one"

# A launcher whose processes do not meet: each would do the whole run.
expect_status 2 "processes that cannot meet" \
  env SLURM_STEP_NUM_TASKS=2 SLURM_PROCID=0 "$varda" fit theophylline.toml --output strangers
grep -q 'E-RUN-LAUNCHER' stderr || fail "the launcher is not named: $(cat stderr)"
[ -e strangers ] && fail "a refused run wrote something"

if [ -z "$mpiexec" ] && command -v mpirun >/dev/null; then
  # A build without MPI.
  expect_status 2 "a serial build under a launcher" \
    mpirun -n 2 "$varda" fit theophylline.toml --output strangers
  grep -q 'E-RUN-LAUNCHER' stderr || fail "the launcher is not named: $(cat stderr)"
fi

if [ -n "$mpiexec" ]; then
  for entry in "${cases[@]}"; do
    read -r name command model counts <<<"$entry"
    for count in $counts; do
      for threads in 1 2; do
        timeout 300 "$mpiexec" -n "$count" "$varda" "$command" "$model" --output "by" --quiet \
          --threads "$threads" >stdout 2>stderr
        same_results "$name" "by"
        [ "$(grep -c '^Results in' stdout)" -eq 1 ] ||
          fail "$name: $count processes do not print once: $(head -c 600 stderr)"
        rm -rf by
      done
    done
  done

  # The root's files count, whatever the others find.
  mkdir elsewhere
  expect_status 0 "a process that sees no files" \
    timeout 60 "$mpiexec" -n 1 "$varda" fit theophylline.toml --output here --quiet : \
    -n 1 --wdir elsewhere "$varda" fit theophylline.toml --output here --quiet
  same_results newton here

  # Refusals reach all processes.
  expect_status 2 "an output folder that is a file" \
    timeout 60 "$mpiexec" -n 2 "$varda" fit theophylline.toml --output theophylline.csv
  sed 's/2.84/many/' theophylline.csv >bad.csv
  sed 's/^file = .*/file = "bad.csv"/' theophylline.toml >bad.toml
  expect_status 2 "bad data" timeout 60 "$mpiexec" -n 3 "$varda" fit bad.toml --output none
  [ "$(grep -c 'E-DATA-NUMBER' stderr)" -eq 1 ] || fail "bad data are not told once: $(cat stderr)"
  expect_status 2 "no data" timeout 60 "$mpiexec" -n 2 "$varda" fit none.toml --output none
  timeout 60 "$mpiexec" -n 1 "$varda" fit theophylline.toml --output none --quiet : \
    -n 1 "$varda" fit theophylline.toml --output none --frobnicate >stdout 2>stderr
  status=$?
  [ "$status" -ne 0 ] && [ "$status" -ne 124 ] || fail "a refusal of one leaves status $status"
  grep -q 'frobnicate' stderr || fail "a refusal of one leaves no message"

  # begin NAME: a long run in the background, whose pid is in `limited`; waits until it works.
  sed 's/^samples = 300/samples = 30000\nmethod = "em"\nrun_all = true/' theophylline.toml >long.toml
  begin() {
    : >stderr # what an earlier run wrote would be taken for this one's
    timeout 120 "$mpiexec" -n 2 "$varda" fit long.toml --output "$1" >stdout 2>stderr </dev/null &
    limited=$!
    for _ in $(seq 600); do
      grep -q '^iteration' stderr && return
      kill -0 "$limited" 2>/dev/null || break
      sleep 0.1
    done
    fail "the long run $1 has not begun: $(head -c 600 stderr)"
    return 1
  }
  finish() {
    wait "$limited"
    status=$?
  }
  last_worker() { pgrep -n -P "$(pgrep -n -P "$limited")"; }

  # A stop that one process alone is asked for ends the run of both in order.
  begin stopped && kill -TERM "$(last_worker)"
  finish
  [ "$status" -eq 3 ] || fail "a stop leaves status $status: $(cat stderr)"
  grep -q 'stopped on request' stdout || fail "the summary does not name the stop"
  [ -s stopped/estimates.csv ] || fail "a stop leaves no results"

  # A process that dies takes the job down.
  begin dead && kill -KILL "$(last_worker)"
  finish
  [ "$status" -ne 0 ] && [ "$status" -ne 124 ] || fail "a dead process leaves status $status"
  [ -s stderr ] || fail "a dead process leaves no message"

  # So does a root that cannot write what it has found.
  begin lost/out && rm -rf lost && touch lost && kill -TERM "$(last_worker)"
  finish
  [ "$status" -ne 0 ] && [ "$status" -ne 3 ] && [ "$status" -ne 124 ] ||
    fail "a lost folder leaves status $status"
  grep -q 'lost' stderr || fail "a lost folder leaves no message: $(cat stderr)"
fi

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
