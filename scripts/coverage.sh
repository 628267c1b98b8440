#!/bin/sh
# Branch coverage of the library, the lab and the command line by their tests, in a build of its own.
# Exit status 1 when one is below its limit. Not counted are branches that only an exception takes and
# those that the compiler makes where there is no code (gcovr: throw and unreachable branches;
# tests/coverage/gcov_without_unwinding.sh what an exception takes apart on its way), and those that
# the code marks with GCOVR_EXCL_BR_LINE and the reason; these are counted and listed. GCOV=gcov
# counts as gcovr does by itself.
#
#   scripts/coverage.sh            builds, runs the tests of these three, prints the figures
#   scripts/coverage.sh figures    prints those of the last run once more
#
# The counters: tests/coverage/counters.c is linked into each program here. It writes them from within
# other root directories and at _exit, each file beside the old one, whose place it takes: a program that
# is killed spoils none. The files are made before the tests, they and their folders writable for
# everybody, as some processes have given their rights away. Only what ends by a signal leaves none.
set -eu
cd "$(dirname "$0")/.."
build=$(pwd -P)/build-coverage
jobs=${JOBS:-$(nproc)}

configure() {
  mkdir -p "$build"
  gcc -O1 -fPIC -Wall -Wextra -Werror -DCOVERAGE_BUILD="\"$build\"" \
    -c tests/coverage/counters.c -o "$build/counters.o"
  flags='--coverage -fprofile-update=prefer-atomic'
  linked="$build/counters.o -Wl,--wrap=open -Wl,--wrap=close -Wl,--wrap=_exit -Wl,--wrap=_Exit"
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDATAMORPH_BENCH=OFF -DDATAMORPH_TEST_TIMEOUT=900 \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_C_FLAGS_DEBUG=-O0 -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
    -DCMAKE_EXE_LINKER_FLAGS="$linked" -DCMAKE_SHARED_LINKER_FLAGS="$linked" \
    -DCMAKE_MODULE_LINKER_FLAGS="$linked"
}

# An empty file of counters is a new one to the program that writes it.
empty_counters() {
  find "$build" -name '*.gcda*' -delete
  : >"$build/counters.lock"
  chmod 666 "$build/counters.lock"
  find "$build/infra" "$build/tools" "$build/tests" -name '*.gcno' | sed 's/gcno$/gcda/' | while read -r file; do
    : >"$file"
    chmod 666 "$file"
    chmod 777 "${file%/*}"
  done
}

# Tests that mean nothing in a build with counters: the first ends whoever opens a file for writing,
# which the counters are; the second looks for a folder of the host that is left open, which theirs is;
# the third is a limit of time, and the fourth, which kills a rollback at each of its calls, takes a
# quarter of an hour with them.
left_out='no_open_is_for_writing|converters_find_no_folder_of_the_host'
left_out="$left_out|a_document_of_300000_records_is_read_in_seconds|rollback_killed\."
# Points at which failing disks fail; one or two, the short form, leave most answers to them out.
points=${POINTS:-12}

run_tests() {
  empty_counters
  labels='unit|fault|property|lab|system|browser|contract|widths|fuzz|crash'
  DATAMORPH_CRASH_COUNT=$points ctest --test-dir "$build" -L "$labels" -E "$left_out" -j "$jobs" \
    --output-on-failure --no-tests=error || {
    echo 'coverage: tests failed; the figures below are of a run that is not whole'
    status=1
  }
  find "$build" -name '*.gcda.*' -delete # of those that were killed
  find "$build" -name '*.gcda' -empty -delete
}

# figure NAME FOLDER LIMIT
figure() {
  echo "==== $1 ($2)"
  gcovr --root . --object-directory "$build" --filter "$2/" --branches -j "$jobs" \
    --gcov-executable "${GCOV:-$PWD/tests/coverage/gcov_without_unwinding.sh}" \
    --exclude-throw-branches --exclude-unreachable-branches \
    --txt "$build/$1.txt" --html-details "$build/$1.html" --fail-under-branch "$3" "$build/infra" "$build/tools" || {
    echo "$1: below $3 % of its branches"
    status=1
  }
  cat "$build/$1.txt"
  echo "$1: $(awk '$1 == "TOTAL" { print $3 " of " $2 " branches, " $4 }' "$build/$1.txt"), at least $3 % wanted"
  marked=$(grep -rn 'GCOVR_EXCL' "$2" || true)
  echo "$1: $(printf '%s' "$marked" | grep -c . || true) lines marked as out of reach"
  [ -z "$marked" ] || printf '%s\n' "$marked"
}

status=0
if [ "${1:-}" != figures ]; then
  scripts/packages.sh install coverage
  configure
  cmake --build "$build"
  run_tests
fi
figure library infra/convert_libs/comps/libdatamorph 100
figure lab infra/platform/lab 90
figure command-line tools/datamorph 90
exit $status
