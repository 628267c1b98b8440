#!/bin/sh
# Fuzzes: builds the targets with clang under build-fuzz, runs two of them at a time, and tells of
# each what it did. Exit status 1 when one has a finding.
#
#   SECONDS=N scripts/fuzz.sh [TARGET...]    N seconds each (60 where nothing is said)
#   RUNS=M scripts/fuzz.sh [TARGET...]       M executions each
#   scripts/fuzz.sh merge [TARGET...]        makes the repository's corpora the fewest inputs that
#                                            reach all code that the known ones do; seed-* stay
#
# What is found on the way grows build-fuzz/corpus, not the repository's tests/fuzz/corpus. SEED is
# the seed of the mutations (1 where nothing is said), JOBS how many run at a time.
set -eu
cd "$(dirname "$0")/.."
all='version mts tlv records description create store'
export SEED="${SEED:-1}"
# Little memory is kept from being used again: a fuzzer that stays small is fast, and what is freed
# stays poisoned for some thousand allocations all the same. Who allocated what is told when a finding
# is run again.
export ASAN_OPTIONS="quarantine_size_mb=4:malloc_context_size=1"

# shellcheck disable=SC2046 # a list of targets
build() {
  scripts/packages.sh install fuzz
  cmake --preset fuzz >/dev/null
  nice cmake --build --preset fuzz --target $(printf '%s_fuzz ' "$@")
}

longest_input() {
  case $1 in
    version | mts) echo 300 ;;
    store | create) echo 512 ;;
    *) echo 2048 ;;
  esac
}

known_inputs() {
  mkdir -p "build-fuzz/corpus/$1" build-fuzz/findings
  cp "tests/fuzz/corpus/$1/"* "build-fuzz/corpus/$1/"
}

# fuzz TARGET OPTION... FOLDER...: in a root of its own; the log is build-fuzz/TARGET.log. Inputs are
# chosen evenly: weighing them by what they reach costs a tenth of the store's runs.
fuzz() {
  name=$1
  shift
  scripts/fuzz_root.sh build-fuzz "tests/fuzz/${name}_fuzz" "-max_len=$(longest_input "$name")" \
    -entropic=0 -timeout=20 -rss_limit_mb=2000 "-artifact_prefix=findings/$name-" "$@" \
    >"build-fuzz/$name.log" 2>&1
}

run() {
  known_inputs "$1"
  limit="-max_total_time=${SECONDS:-60}"
  [ -z "${RUNS:-}" ] || limit="-runs=$RUNS"
  status=0
  fuzz "$1" "$limit" "-seed=$SEED" -print_final_stats=1 "corpus/$1" || status=$?
  echo "$status" >"build-fuzz/$1.status"
}

merge() {
  known_inputs "$1"
  rm -rf "build-fuzz/merged/$1"
  mkdir -p "build-fuzz/merged/$1"
  cp "tests/fuzz/corpus/$1/seed-"* "build-fuzz/merged/$1/"
  fuzz "$1" -merge=1 -use_counters=0 "merged/$1" "corpus/$1"
  rm -f "tests/fuzz/corpus/$1/"*
  cp "build-fuzz/merged/$1/"* "tests/fuzz/corpus/$1/"
  echo "$1: $(find "tests/fuzz/corpus/$1" -type f | wc -l) inputs," \
    "$(du -bs "tests/fuzz/corpus/$1" | cut -f 1) bytes"
}

# told TARGET LINE WORD: the number behind the word in the last such line of the log.
told() {
  grep -aE "$2" "build-fuzz/$1.log" | tail -n 1 | sed -n "s/.*$3 *\([0-9][0-9]*\).*/\1/p"
}

# What a target did; false when it has a finding.
tell() {
  status=$(cat "build-fuzz/$1.status")
  findings=$((status != 0))
  seconds=$(told "$1" '^Done ' 'runs in')
  echo "$1: $(told "$1" '^stat::number_of_executed_units' 'units:') executions" \
    "in ${seconds:-?} s, seed $SEED," \
    "coverage $(told "$1" INITED 'cov:'), then $(told "$1" 'cov: [0-9]' 'cov:')," \
    "findings: $findings"
  [ "$findings" -ne 0 ] || return 0
  grep -aE '^finding:|ERROR:|runtime error|SUMMARY' "build-fuzz/$1.log" | head -n 5
  input=$(sed -n 's/.*Test unit written to //p' "build-fuzz/$1.log" | tail -n 1)
  echo "  again by: scripts/fuzz_root.sh build-fuzz tests/fuzz/$1_fuzz $input"
  return 1
}

what=run
case ${1:-} in
  merge | one)
    what=$1
    shift
    ;;
esac
[ $# -gt 0 ] || eval "set -- $all"
case $what in
  one) # of those that run side by side
    run "$1"
    exit
    ;;
  merge)
    build "$@"
    for target in "$@"; do
      merge "$target"
    done
    exit
    ;;
esac
build "$@"
printf '%s\n' "$@" | xargs -P "${JOBS:-2}" -I{} "$0" one {}
found=0
for target in "$@"; do
  tell "$target" || found=1
done
exit "$found"
