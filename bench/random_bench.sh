#!/usr/bin/env bash
# The suite's random tests at length, a million operations and more each, from another seed each time
# (or from RYX_TEST_SEED). A failure names the seed that brings it back.
#   random_bench.sh BUILD-DIRECTORY
set -euo pipefail
bin=$1/bin
export RYX_TEST_SEED=${RYX_TEST_SEED:-$(($(date +%s) % 1000000000))}
echo "seeds from RYX_TEST_SEED=$RYX_TEST_SEED"
[ -z "${RYX_BENCH_SMALL:-}" ] || exit 0

# at_length WHAT PROGRAM TEST TIMES
at_length() {
  local start=$SECONDS
  RYX_TEST_TIMES=$4 "$bin/$2" --gtest_brief=1 --gtest_filter="$3" >"$log" 2>&1 || {
    cat "$log"
    exit 1
  }
  echo "$1: $(grep -o '^[0-9]* random operations' "$log"), $((SECONDS - start)) s"
}
log=$(mktemp)
trap 'rm -f "$log"' EXIT
at_length "dispatch against a model" dispatch_test 'Dispatch.randomOperationsAgainstTheModel' 25
at_length "reactors over the tree, a mirror of callbacks" reactor_test 'ReactorTest.MirrorsEqualTheState' 5
at_length "the same, with callbacks that change, throw and run the loop" reactor_test \
  'ReactorTest.MirrorsEqualTheStateWhateverCallbacksDo' 4
at_length "three writers over the link, cuts and refusals, mirrors of callbacks" link_test \
  'LinkTest.RandomWritersEndEqual' 17
at_length "tables in shared memory, their writer restarted, a mirror of callbacks" mirra_test \
  'Ends/MirraTest.RandomWritesAndRestarts/OverAHub' 3
at_length "processes that write and read them at full speed, killed at random moments" \
  mirra_process_test 'MirraProcessTest.EveryRowIsWholeWhoeverIsKilled' 8
at_length "processes of server, service and agents, killed at random moments" system_test \
  'SystemTest.KillsAtRandomMomentsUnderLoad' 15
