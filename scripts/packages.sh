#!/bin/sh
# The Debian packages that the project needs; nothing else names them.
#
#   scripts/packages.sh install SET    installs what is missing of a set (with sudo when not root)
#   scripts/packages.sh list SET       prints it
#
# Sets: demo (build and run), test (demo and the test programs); fuzz, coverage, mutants and valgrind
# (test, and what the scripts of that name use); ci (all of these, and the other checks).
set -eu

demo='g++ make cmake ninja-build pkg-config libsqlite3-dev libzmq3-dev libxxhash-dev
  libcli11-dev nlohmann-json3-dev libsmartcols-dev scdoc'
test="$demo libgtest-dev librapidcheck-dev chromium zsh groff-base"
for_fuzz='clang libclang-rt-14-dev llvm'
for_mutants='python3 lld'
fuzz="$test $for_fuzz"
coverage="$test gcovr"
mutants="$test $for_mutants"
valgrind="$test valgrind"
ci="$test $for_fuzz $for_mutants gcovr valgrind git g++-multilib googletest clang-format clang-tidy cppcheck"

usage() {
  echo "usage: scripts/packages.sh install|list demo|test|ci|fuzz|coverage|mutants|valgrind" >&2
  exit 64
}

[ $# -eq 2 ] || usage
case $2 in
  demo) set_of_packages=$demo ;;
  test) set_of_packages=$test ;;
  ci) set_of_packages=$ci ;;
  valgrind) set_of_packages=$valgrind ;;
  fuzz) set_of_packages=$fuzz ;;
  coverage) set_of_packages=$coverage ;;
  mutants) set_of_packages=$mutants ;;
  *) usage ;;
esac

installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

install() {
  missing=
  for package in $set_of_packages; do
    installed "$package" || missing="$missing $package"
  done
  [ -n "$missing" ] || return 0
  echo "Installing:$missing" >&2
  as_root=
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "Not root and no sudo: have an administrator install$missing" >&2
      exit 1
    }
    as_root=sudo
  fi
  $as_root env DEBIAN_FRONTEND=noninteractive apt-get -q update </dev/null >&2
  # shellcheck disable=SC2086 # a list of packages
  $as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-install-recommends $missing </dev/null >&2
}

case $1 in
  install) install ;;
  list) for package in $set_of_packages; do echo "$package"; done ;;
  *) usage ;;
esac
