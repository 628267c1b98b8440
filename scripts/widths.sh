#!/bin/sh
# The same inputs in 64 and in 32 bits: builds the library's test of it in both widths and compares what
# every routine gives at every pair of releases, on the whole switch and on SEEDS spoilt ones.
#
#   scripts/widths.sh [SEEDS]   compares the two (8 by default); exit status 1 when they differ
#   scripts/widths.sh update    writes tests/widths/expected.txt, that every build compares with
set -eu
cd "$(dirname "$0")/.."

run_in() {
  cmake --preset "$1" -DDATAMORPH_TESTS=ON >/dev/null
  cmake --build --preset "$1" --target widths_test >&2
  ran=$(DATAMORPH_WIDTHS_SEEDS=$2 "$3/tests/widths/widths_test") || {
    echo "$ran" >&2
    exit 1
  }
  echo "$ran" | grep '^widths:' >&2
  echo "$ran" | sed -n 's/^digest //p'
}

scripts/packages.sh install ci
if [ "${1:-}" = update ]; then
  made=$(mktemp)
  trap 'rm -f "$made"' EXIT
  run_in release 1 build >"$made"
  cat "$made" >tests/widths/expected.txt
  exit
fi
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
run_in release "${1:-8}" build >"$results/64"
run_in x86-32 "${1:-8}" build-x86-32 >"$results/32"
if ! cmp -s "$results/64" "$results/32"; then
  echo 'The widths differ, first in (64 bits above, 32 below):'
  diff "$results/64" "$results/32" | grep '^[<>]' | head -n 2
  exit 1
fi
echo "Both widths give the same stores, statuses and traces: $(wc -l <"$results/64") lines of digests"
