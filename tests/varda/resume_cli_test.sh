#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Fits that are really killed, and taken up from the command line.
#   resume_cli_test.sh VARDA SOURCE_FOLDER [MPIEXEC]
# shellcheck source=tests/varda/outside.sh
. "$(dirname "$0")/outside.sh"
mpiexec=${3:-}

# Every results file but run.json and what holds its hash; page one up to its last block.
same_results() {
  local file
  diff <(ls -A "$1") <(ls -A "$2") || fail "$1 and $2 hold other files"
  for file in "$1"/*; do
    file=${file##*/}
    case $file in
      run.json | manifest.json) continue ;;
      page_one.txt)
        cmp -s <(sed '/^Time: /,$d' "$1/$file") <(sed '/^Time: /,$d' "$2/$file") ||
          fail "$1 and $2 differ on page one"
        ;;
      *) cmp -s "$1/$file" "$2/$file" || fail "$1 and $2 differ in $file" ;;
    esac
  done
}

# workers PID: the processes below it that have none below themselves.
workers() {
  local below
  below=$(pgrep -P "$1") || { echo "$1"; return; }
  for pid in $below; do workers "$pid"; done
}

# kill_after STATES NAME COMMAND...: kills the command when its state was seen to change so many times,
# or, where that was too quick to see, in its diagnostics.
kill_after() {
  local states=$1 name=$2 seen=0 last='' now pid
  shift 2
  "$@" >stdout 2>stderr </dev/null &
  pid=$!
  while [ "$seen" -lt "$states" ] && kill -0 "$pid" 2>/dev/null; do
    now=$(stat -c %i.%Y%Z "$name.part/run.state" 2>/dev/null)
    if [ -n "$now" ] && [ "$now" != "$last" ]; then
      seen=$((seen + 1))
      last=$now
    fi
    grep -q '^standard errors' stderr && break
  done
  for worker in $(workers "$pid"); do kill -KILL "$worker" 2>/dev/null; done
  kill -KILL "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  for _ in $(seq 100); do # the lock goes with the last of the processes
    flock -n "$name.part" true 2>/dev/null && break
    sleep 0.1
  done
  [ -s "$name.part/run.state" ] || fail "$name: a kill leaves no state"
}

sed 's/^samples = 300/samples = 300\ncheckpoint = 0\nnpde_samples = 20000/' theophylline.toml >newton.toml
sed 's/^samples = 300/samples = 400\nmethod = "em"\nmax_iterations = 30\ncheckpoint = 0\nnpde_samples = 20000/
  s/^error = .*/error = "combined"\nproportional = 0.1/' theophylline.toml >em.toml

for method in newton em; do
  "$varda" fit $method.toml --output whole-$method --quiet >stdout 2>stderr
  [ -s whole-$method/fit.json ] || fail "no results of $method: $(cat stderr)"
  [ -e whole-$method/run.state ] && fail "a fit that has ended keeps its state"
  for states in 1 3 20; do
    rm -rf out out.part
    kill_after $states out "$varda" fit $method.toml --output out
    "$varda" fit $method.toml --output out --quiet --resume --threads 2 >stdout 2>stderr
    same_results whole-$method out
    [ -e out.part ] && fail "a fit that was taken up leaves its working folder"
  done
  grep -q '"sessions": 2' out/run.json || fail "run.json does not tell that the fit was taken up"
  if [ -n "$mpiexec" ]; then
    # Written by two processes, taken up by one; and the other way round.
    rm -rf out
    kill_after 4 out "$mpiexec" -n 2 "$varda" fit $method.toml --output out
    "$varda" fit $method.toml --output out --quiet --resume >stdout 2>stderr
    same_results whole-$method out
    rm -rf out
    kill_after 4 out "$varda" fit $method.toml --output out
    timeout 300 "$mpiexec" -n 2 "$varda" fit $method.toml --output out --quiet --resume >stdout 2>stderr
    same_results whole-$method out
  fi
done

# What cannot be taken up, and what is found by a fit that does not ask for it.
expect_status 2 "nothing to take up" "$varda" fit newton.toml --output nothing --resume
grep -q 'there is no unfinished fit' stderr || fail "it is not said that there is none: $(cat stderr)"
expect_status 2 "a fit that has ended" "$varda" fit newton.toml --output whole-newton --resume
rm -rf out
kill_after 1 out "$varda" fit newton.toml --output out
cp -r out.part kept.part
expect_status 2 "the same fit anew" "$varda" fit newton.toml --output out
grep -q 'E-RUN-UNFINISHED' stderr && grep -q -- '--resume' stderr || fail "no word of --resume: $(cat stderr)"
expect_status 2 "another seed" "$varda" fit newton.toml --output out --resume --seed 7
grep -q 'seed (1 there, 7 here)' stderr || fail "the other seed is not named: $(cat stderr)"
expect_status 2 "an evaluation beside it" "$varda" evaluate newton.toml --output out
sed 's/2.84/2.85/' theophylline.csv >kept.csv && mv theophylline.csv old.csv && mv kept.csv theophylline.csv
expect_status 2 "other data" "$varda" fit newton.toml --output out --resume
grep -q 'data file' stderr || fail "other data are not named: $(cat stderr)"
mv old.csv theophylline.csv
echo '# a remark' >>newton.toml
expect_status 2 "another model file" "$varda" fit newton.toml --output out --resume
grep -q 'model file' stderr || fail "another model file is not named: $(cat stderr)"
cmp -s out.part/run.state kept.part/run.state || fail "a refusal touches the state"
sed -i '$d' newton.toml
for damage in 's/starts/stxrts/' '1s/1$/2/' '$d'; do
  LC_ALL=C sed "$damage" kept.part/run.state >out.part/run.state
  timeout 60 "$varda" fit newton.toml --output out --resume >stdout 2>stderr
  [ $? -eq 2 ] || fail "a damaged state ($damage) is not refused: $(cat stderr)"
done
cp kept.part/run.state out.part/run.state
expect_status 0 "another fit in the folder" "$varda" fit newton.toml --output out --seed 7 --quiet
tr -d '\n' <stderr | grep -Eq 'is *discarded' || fail "nothing is said of the state that was discarded: $(cat stderr)"
[ -e out.part ] && fail "the state that was given up stays"

# A stop leaves results so far, and the state beside them.
rm -rf out
sed 's/^samples = 300/samples = 3000\nmethod = "em"\nmax_iterations = 40\nrun_all = true/' \
  theophylline.toml >long.toml
"$varda" fit long.toml --output out >stdout 2>stderr </dev/null &
pid=$!
for _ in $(seq 600); do
  grep -q '^iteration' stderr && break
  sleep 0.05
done
kill -HUP "$pid"
wait "$pid"
[ $? -eq 3 ] || fail "a stop leaves another status: $(cat stderr)"
[ -s out/run.state ] && [ -s out/fit.json ] || fail "a stop leaves no results or no state"
grep -q -- 'To continue, .* --resume' stdout || fail "page one does not say how to go on"
expect_status 2 "a stopped fit anew" "$varda" fit long.toml --output out
"$varda" fit long.toml --output out --quiet --resume >stdout 2>stderr
"$varda" fit long.toml --output undisturbed --quiet >stdout 2>stderr
same_results undisturbed out

# Start values of another fit go with the state, although that fit's folder has changed.
rm -rf out
"$varda" fit newton.toml --output undisturbed2 --from whole-em --quiet >stdout 2>stderr
kill_after 3 out "$varda" fit newton.toml --output out --from whole-em
mv whole-em elsewhere
"$varda" fit newton.toml --output out --resume --quiet >stdout 2>stderr
same_results undisturbed2 out

[ "$failures" -eq 0 ] && echo "all as expected"
exit $((failures > 0))
