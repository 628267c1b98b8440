#!/bin/sh
# The command line killed, out of power, on full and failing disks, at up to COUNT points of each
# kind, chosen by SEED. Prints a line per kind, and how many distinct states a lost power left in all:
# with a COUNT of 2500 and more, fewer than 10,000 are a failure.
#   scripts/crashes.sh [COUNT [SEED]]
set -eu
cd "$(dirname "$0")/.."
count=${1:-2500}
seed=${2:-1}
scripts/packages.sh install test >&2
cmake --preset release -DDATAMORPH_TESTS=ON >&2
cmake --build --preset release --target crash_test >&2
log=build/crashes.log
status=0
DATAMORPH_CRASH_COUNT=$count DATAMORPH_CRASH_SEED=$seed build/tests/crash/crash_test >"$log" || status=$?
grep -E '^(power loss|kills|failing disk|failing reads): ' "$log" || true
if [ "$status" -ne 0 ]; then
  grep -v '^state: ' "$log"
  exit "$status"
fi
states=$(grep '^state: ' "$log" | sort -u | wc -l)
echo "power loss: $states distinct states in all, all hold (seed $seed)"
[ "$count" -ge 2500 ] && wanted=10000 || wanted=1
if [ "$states" -lt "$wanted" ]; then
  echo "power loss: at least $wanted states are wanted"
  exit 1
fi
