#!/bin/sh
# Format, layering, static analysis.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install ci

sources=$(git ls-files 'infra/*.cpp' 'infra/*.h' 'tools/*.cpp' 'tools/*.h' 'tests/*.cpp' 'tests/*.h' \
  'tests/*.c' 'bench/*.cpp' 'bench/*.h' 'bench/*.c')

echo 'format'
# shellcheck disable=SC2086 # a list of files
clang-format --dry-run --Werror $sources

echo 'layering'
scripts/check_layers.sh

echo 'cppcheck'
cppcheck --quiet -j "$(nproc)" --error-exitcode=1 --std=c++20 --language=c++ --inline-suppr \
  --enable=warning,performance,portability --suppress=missingIncludeSystem \
  -I infra/platform/include -I infra/platform -I infra/convert_libs/comps/libdatamorph \
  infra tools

echo 'clang-tidy'
cmake --preset release -DDATAMORPH_TESTS=ON -DDATAMORPH_BENCH=ON >/dev/null
tidy() {
  checks=$1
  xargs -P "$(nproc)" -n 1 clang-tidy --quiet --checks="$checks" --extra-arg=-Wno-unknown-warning-option \
    --extra-arg=-enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang --warnings-as-errors='*' -p build 2>build/clang-tidy.log ||
    {
      cat build/clang-tidy.log
      exit 1
    }
}
# The analyzer follows paths through the library and the lab; over the command line, whose JSON costs
# it minutes, it runs with LINT_ALL=1. Without it those sources are read as they are compiled, several
# at once: the headers that they share are gone through once.
git ls-files 'infra/*.cpp' | tidy ''
if [ -n "${LINT_ALL:-}" ]; then
  git ls-files 'tools/*.cpp' | tidy ''
else
  sed -n 's/^ *"file": "\(.*\/tools\/datamorph\/.*unity_[0-9]*_cxx\.cxx\)".*/\1/p' build/compile_commands.json >build/unities.txt
  [ -s build/unities.txt ] || { echo "no sources of the command line in build/compile_commands.json" >&2; exit 1; }
  echo tools/datamorph/main.cpp >>build/unities.txt # is compiled by itself
  tidy '-clang-analyzer-*,-bugprone-suspicious-include' <build/unities.txt
fi
