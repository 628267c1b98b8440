#!/bin/sh
# The command line killed, out of power, on full and failing disks, at up to COUNT points of each
# kind, chosen by SEED. Prints a line per kind, and how many states a lost power left in all.
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
grep -E '^(power loss|kills|failing disk): ' "$log" || true
if [ "$status" -ne 0 ]; then
  cat "$log"
  exit "$status"
fi
awk -v seed="$seed" '/^power loss: / { for (at = 1; at < NF; ++at) if ($(at + 1) == "distinct") states += $at }
  END { printf "power loss: %d distinct states in all, all hold (seed %s)\n", states, seed }' "$log"
