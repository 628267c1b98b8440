#!/bin/sh
# Installs what is missing, builds the release and runs all tests.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install test
cmake --preset release -DDATAMORPH_TESTS=ON -DDATAMORPH_BENCH=OFF
cmake --build --preset release
# Tests of the command line wait for disks and for one another more than they compute.
exec ctest --preset release --output-on-failure --no-tests=error -j "${JOBS:-$(($(nproc) + 1))}" "$@"
