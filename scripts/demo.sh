#!/bin/sh
# Installs what is missing, builds the library and the command line, creates lab switches from
# examples/, converts them with the real library, shows what changed, and goes the careful way:
# check, rehearse, a saved plan, its conversion, history, rollback.
set -eu
cd "$(dirname "$0")/.."
scripts/packages.sh install demo
cmake --preset release -DDATAMORPH_TESTS=OFF -DDATAMORPH_BENCH=OFF
cmake --build --preset release

datamorph=$(pwd)/build/datamorph
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

say() {
  printf '\n# %s\n' "$*"
}

# Shows a command as it would be typed.
typed() {
  printf '$ datamorph'
  for word in "$@"; do
    case $word in
      *[!A-Za-z0-9_./-]*) printf " '%s'" "$word" ;;
      *) printf ' %s' "$word" ;;
    esac
  done
  printf '\n'
}

run() {
  typed "$@"
  "$datamorph" "$@"
}

# Runs a command that writes much, and shows its last lines and its last message.
run_last() {
  lines=$1
  shift
  typed "$@"
  "$datamorph" "$@" >data 2>messages || {
    cat messages >&2
    exit 1
  }
  echo ...
  tail -n "$lines" data
  tail -n 1 messages
}

# What a switch holds, one line each.
state() {
  "$datamorph" store export "$1" | grep -o '"uri":"[^"]*"\|"key":"[^"]*"' |
    sed 's/"uri":"\(.*\)"/store  \1/; s/"key":"\(.*\)"/record   \1/'
  "$datamorph" lab show "$1" | sed -n '/^ACCESS POINT/,/^$/ { /^ACCESS POINT/d; /^$/d; s/^ */access point /p; }'
}

# Converts and shows the difference; fails when there is none.
convert_and_compare() {
  switch=$1
  shift
  state "$switch" >"$switch.before"
  run convert "$switch" "$@"
  state "$switch" >"$switch.after"
  say "What is gone (-) and what is new (+):"
  if diff -U 0 "$switch.before" "$switch.after" >"$switch.diff"; then
    echo "nothing changed: that is not what this conversion does" >&2
    exit 1
  fi
  grep '^[-+][^-+]' "$switch.diff"
}

say 'A switch at 4.1(5) with the runtime state of its services'
run lab create ./switch --from "$OLDPWD/examples/datacenter-switch.json"
run lab show ./switch

say 'Its running filesystem goes to 3.3(1), which does not understand the state of seven services'
convert_and_compare switch --moment running-fs --to '3.3(1)'

say 'The last lines of the conversion log that the switch keeps'
tail -n 4 switch/current/mnt/pss/data_morph.log

say 'Its startup configuration goes to 4.2(1): the VRRP manager hands its groups over to the engine'
convert_and_compare switch --to '4.2(1)' --moment startup --service VRRP_MGR --service VRRP_ENG
run store show ./switch nonvolatile:/cfg/startup/vdc_2/bin/vrrp-eng_runtime_config

say 'A switch in NPV mode goes from 4.2(1) down to 4.0(4): EPP loses its stores and access point'
run lab create ./npv --from "$OLDPWD/examples/npv-switch.json"
convert_and_compare npv --to '4.0(4)'

say 'The careful way, with a fresh switch: does anything stand in the way of 4.2(1)?'
run lab create ./fresh
run check ./fresh --to '4.2(1)'

say 'What it would do, on a copy: the last lines of every change and what is lost; kept as a plan'
run_last 10 rehearse ./fresh --to '4.2(1)' --save plan.json

say 'The plan, carried out: refused if the switch were another one by now'
run_last 1 convert ./fresh --plan plan.json

say 'What was done, and back in one step'
run history ./fresh
run why ./fresh nonvolatile:/cfg/0/ethpm_runtime_info 33061a000000
run rollback ./fresh --yes

say "Done. Try it yourself: $datamorph --help"
