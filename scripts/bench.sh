#!/bin/sh
# Builds the release and prints every figure beside its floor, both measured in the same run.
# Exit status 1 when a figure misses its limit.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install test
cmake --preset release -DDATAMORPH_TESTS=OFF -DDATAMORPH_BENCH=ON >&2
cmake --build --preset release >&2
# On the disk of the build, not on a file system in memory: syncs are part of what is measured.
TMPDIR=$(pwd)/build
export TMPDIR
status=0
for program in trace_bench load_bench stores_bench messages_bench vrrp_library_bench vrrp_bench \
  walk_library_bench walk_bench gsdb_bench rehearse_bench; do
  build/bench/$program || status=1
done
exit $status
