#!/bin/sh
# Installs what is missing, builds the release and runs all tests.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install test
cmake --preset release -DDATAMORPH_TESTS=ON -DDATAMORPH_BENCH=ON
cmake --build --preset release
exec ctest --preset release --output-on-failure --no-tests=error -j "${JOBS:-$(nproc)}" "$@"
