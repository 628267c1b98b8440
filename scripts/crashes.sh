#!/bin/sh
# The command line killed, out of power, on full and failing disks, at up to COUNT points of each
# kind, chosen by SEED. Prints a line per kind and the totals; what a lost power left are distinct
# states, of the verbs alone: with a COUNT of 2500 and more, fewer than 10,000 are a failure.
#
#   scripts/crashes.sh [COUNT [SEED]]
#
# TESTS names some of the tests (as --gtest_filter: 'power_loss.*'); as many run at a time as there are
# processors, or JOBS.
set -eu
cd "$(dirname "$0")/.."
count=${1:-2500}
seed=${2:-1}
scripts/packages.sh install test >&2
cmake --preset release -DDATAMORPH_TESTS=ON >&2
cmake --build --preset release --target crash_test >&2
log=build/crashes.log
status=0
export DATAMORPH_CRASH_COUNT="$count" DATAMORPH_CRASH_SEED="$seed"
jobs=${JOBS:-$(nproc)}
seq 0 $((jobs - 1)) | xargs -P "$jobs" -I{} sh -c \
  'GTEST_TOTAL_SHARDS=$1 GTEST_SHARD_INDEX={} build/tests/crash/crash_test --gtest_filter="$2" >"$3.{}"' \
  sh "$jobs" "${TESTS:-*}" "$log" || status=1
cat "$log".[0-9]* >"$log"
rm -f "$log".[0-9]*
grep -E '^(power loss|kills|failing disk|failing reads): ' "$log" || true
if [ "$status" -ne 0 ]; then
  grep -v '^state' "$log"
  exit "$status"
fi
# total KIND BEFORE BEHIND: the sum of the numbers between these words in the lines of a kind.
total() {
  sed -nE "s/^$1: .*$2 ([0-9]+) $3.*/\\1/p" "$log" | awk '{ sum += $1 } END { print sum + 0 }'
}
# points KIND WHAT: how many of how many were taken.
points() {
  echo "$(total "$1" at "of [0-9]+ $2") of $(total "$1" 'at [0-9]+ of' "$2")"
}
states=$(grep '^state: ' "$log" | sort -u | wc -l)
cat <<END
all hold (count $count, seed $seed):
power loss: $states distinct states of verbs, $(total 'power loss' 'calls,' 'of recoveries') of recoveries;
  $(total 'power loss' 'recoveries,' 'of both') of both with the verb ended
kills: $(points kills 'calls'), $(total kills 'calls,' 'recoveries') with the recovery killed as well
kills: $(points kills 'platform calls') at platform calls
failing disk: $(points 'failing disk' 'points'), $(total 'failing disk' 'points,' 'without effect') without effect
failing reads: $(points 'failing reads' 'points')
END
[ "$count" -ge 2500 ] && wanted=10000 || wanted=1
case ${TESTS:-*} in
  '*' | *power_loss*) ;;
  *) exit 0 ;; # none was asked for
esac
if [ "$states" -lt "$wanted" ]; then
  echo "power loss: at least $wanted states are wanted"
  exit 1
fi
