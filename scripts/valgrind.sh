#!/bin/sh
# The tests of library and lab under valgrind, each program whole in one process and its tests in random
# order, two programs at a time; then the command line through convert, rehearse and rollback.
#
#   scripts/valgrind.sh [SEED]   the order of a former run; by default one by the clock
#
# PROGRAMS names some of the test programs, TESTS some of their tests (as --gtest_filter); BUILD is a build that is there, in place of one made in build-valgrind;
# DATAMORPH_FAULTS and DATAMORPH_WIDTHS_SEEDS are how much of tests/fault and tests/widths is run.
# Exit status 1 when an invalid access, an unset value or a lost block is found, or a test fails.
set -eu
cd "$(dirname "$0")/.."
seed=${1:-$(($(date +%s) % 99999 + 1))}
build=$(realpath -m "${BUILD:-build-valgrind}")
logs=$build/valgrind
programs=${PROGRAMS:-unit/unit_test support/support_test contract/contract_double_test fault/fault_test
  property/property_test widths/widths_test contract/contract_lab_test lab/lab_test}

# What cannot hold under valgrind, and why:
# - without_descriptors...: a limit on descriptors that the process sets itself is valgrind's then, and not kept.
left_out='log_test.without_descriptors_the_line_reaches_standard_error'

scripts/packages.sh install valgrind
[ -n "${BUILD:-}" ] || cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDATAMORPH_BENCH=OFF \
  -DDATAMORPH_TESTS=ON -DDATAMORPH_SYSTEM_TESTS=OFF >/dev/null
# shellcheck disable=SC2086 # a list of targets
cmake --build "$build" --target datamorph libdatamorph $(for program in $programs; do
  basename "$program"
done) >&2
rm -rf "$logs"
mkdir -p "$logs"

# What a process that another one was forked from still holds at its end is that one's business.
checked='valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect
  --show-leak-kinds=definite,indirect --num-callers=30 --vgdb=no'

# Its output stays in a log; one line tells what became of it.
cat >"$logs/run" <<RUN
#!/bin/sh
name=\$(basename "\$1")
began=\$(date +%s)
status=0
$(echo "$checked" | tr '\n' ' ') "$build/tests/\$1" --gtest_shuffle --gtest_random_seed=$seed \
  --gtest_filter="${TESTS:-*}-$left_out" \
  >"$logs/\$name" 2>&1 || status=\$?
passed=\$(grep -o 'PASSED  . [0-9]* tests*' "$logs/\$name" | grep -o '[0-9]* tests*')
errors=\$(grep -c '^==[0-9]*== [A-Z]' "$logs/\$name")
echo "\$name: \${passed:-no tests} passed, \$errors reports, exit status \$status, \$((\$(date +%s) - began)) s"
[ "\$status" -eq 0 ] && [ "\$errors" -eq 0 ]
RUN
chmod +x "$logs/run"

echo "valgrind: random order $seed (scripts/valgrind.sh $seed runs it again)"
failed=0
# Less than without valgrind, which is thirty times as fast.
export DATAMORPH_FAULTS="${DATAMORPH_FAULTS:-1009}" DATAMORPH_WIDTHS_SEEDS="${DATAMORPH_WIDTHS_SEEDS:-0}"
# shellcheck disable=SC2086 # a list of programs
printf '%s\n' $programs | xargs -P 2 -n 1 "$logs/run" || failed=1

# ---- The command line

switches=$(mktemp -d)
trap 'rm -rf "$switches"' EXIT
calls=0
call() {
  calls=$((calls + 1))
  # shellcheck disable=SC2086 # words
  $checked --log-file="$logs/datamorph-$calls-%p" "$build/datamorph" "$@" \
    >"$logs/datamorph-$calls.out" 2>&1 && status=0 || status=$?
  [ "$status" -eq 0 ] || {
    echo "datamorph $*: exit status $status, see $logs/datamorph-$calls*"
    failed=1
  }
}
export DATAMORPH_LIBRARY="$build/libdatamorph.so.1"
began=$(date +%s)
call lab create "$switches/sw" --from examples/datacenter-switch.json
call rehearse "$switches/sw" --to '4.2(1)'
call convert "$switches/sw" --to '4.2(1)'
call convert "$switches/sw" --to '4.1(5)'
call rollback "$switches/sw" --yes
call check "$switches/sw" --to '4.2(1)'
# Of a system call that valgrind does not know it only warns; the program does without it.
reports=$(cat "$logs"/datamorph-*-* | grep -c '^==' || true)
[ "$reports" -eq 0 ] || {
  echo "datamorph: see $logs/datamorph-*"
  failed=1
}
echo "datamorph: $calls commands, $reports lines of reports, $(($(date +%s) - began)) s"
exit "$failed"
