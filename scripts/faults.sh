#!/bin/sh
# Every platform call and every allocation of every routine of the library fails, and every answer is
# spoilt. Prints how many cases there are, how many were run, and of how many routines. Nothing is
# drawn: one of N is every N-th in their order, so that there is no seed.
#   scripts/faults.sh [all|N]   all of them (twenty minutes of computing), or one of N
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install test >&2
cmake --preset release -DDATAMORPH_TESTS=ON >&2
cmake --build --preset release --target fault_test >&2
log=build/faults.log
DATAMORPH_FAULTS=${1:-all} build/tests/fault/fault_test >"$log" || {
  cat "$log"
  exit 1
}
grep ' cases' "$log"
