#!/bin/sh
# Holds what a build really used against the one list of packages.
#
#   scripts/check_packages.sh headers SET BUILD   every header that BUILD was compiled from comes
#                                                 from the project or from a package of the set
#   scripts/check_packages.sh programs SET DIR    fills DIR with links to the programs of the set and
#                                                 of the base system: a run with PATH=DIR fails on
#                                                 any other program
#
# A package of the set stands for what it depends on too.
set -eu
cd "$(dirname "$0")/.."

usage() {
  echo "usage: scripts/check_packages.sh headers SET BUILD | programs SET DIR" >&2
  exit 64
}
[ $# -eq 3 ] || usage

# The packages of the set, of the base system (what is essential or required, and apt), and all that
# they depend on.
closure() {
  {
    scripts/packages.sh list "$1" | sed 's/^/want /'
    dpkg-query -W -f 'have ${binary:Package}|${Provides}|${Pre-Depends}, ${Depends}|${Essential} ${Priority}\n'
  } | awk '
    function plain(name) { sub(/^ +/, "", name); sub(/[ :(].*/, "", name); return name }
    /^want / { queue[++last] = $2; next }
    {
      line = substr($0, 6); split(line, field, "|")
      # alternatives in Depends use "|" too: take the parts from both ends
      count = split(line, part, "|")
      name = plain(part[1]); provides = part[2]; depends = part[3]
      for (i = 4; i < count; ++i) depends = depends "," part[i]
      installed[name] = depends
      number = split(provides, virtual, ",")
      for (i = 1; i <= number; ++i) if (plain(virtual[i]) != "") provider[plain(virtual[i])] = provider[plain(virtual[i])] " " name
      if (part[count] ~ /yes|required/ || name == "apt") queue[++last] = name
    }
    END {
      for (first = 1; first <= last; ++first) {
        name = queue[first]
        if (name in seen) continue
        seen[name] = 1
        if (name in installed) {
          print name
          number = split(installed[name], need, ",")
          for (i = 1; i <= number; ++i) if (plain(need[i]) != "") queue[++last] = plain(need[i])
        }
        number = split(provider[name], other, " ")
        for (i = 1; i <= number; ++i) queue[++last] = other[i]
      }
    }' | sort -u
}

headers() {
  packages=$(closure "$1")
  source_dir=$(pwd -P)
  ninja -C "$2" -t deps | sed -n 's/^    //p' | grep '^/' | xargs -r -n 500 readlink -f | sort -u |
    grep -v "^$source_dir/" >"$2/system-headers.txt" || true
  [ -s "$2/system-headers.txt" ] || {
    echo "no header found in $2: is it built?" >&2
    exit 1
  }
  xargs -n 200 dpkg -S <"$2/system-headers.txt" >"$2/header-owners.txt" 2>"$2/header-strays.txt" || true
  if [ -s "$2/header-strays.txt" ]; then
    echo "headers of no package:" >&2
    cat "$2/header-strays.txt" >&2
    exit 1
  fi
  strays=$(sed 's/: \/.*//; s/:[a-z0-9]*$//' "$2/header-owners.txt" | tr ',' '\n' | sed 's/^ *//; s/:.*//' |
    sort -u | while read -r owner; do
      printf '%s\n' "$packages" | grep -qxF "$owner" || echo "$owner"
    done)
  if [ -n "$strays" ]; then
    echo "headers of packages that scripts/packages.sh does not name: $strays" >&2
    exit 1
  fi
  echo "$(wc -l <"$2/system-headers.txt") headers used, all from the packages of '$1'"
}

programs() {
  mkdir -p "$2"
  owned=$(mktemp)
  # shellcheck disable=SC2046 # a list of packages
  dpkg -L $(closure "$1") 2>/dev/null | grep -E '^(/usr)?/(s?bin|lib)/' | sed 's|^/\([sb]\)|/usr/\1|; s|^/lib|/usr/lib|' |
    sort -u >"$owned"
  for program in /usr/bin/* /usr/sbin/*; do
    target=$(readlink -f "$program") || continue
    printf '%s\t%s\n' "$target" "$program"
  done | sort -t "$(printf '\t')" -k 1,1 | join -t "$(printf '\t')" - "$owned" | cut -f 2 |
    while read -r program; do ln -sf "$program" "$2/"; done
  rm -f "$owned"
  echo "$(find "$2" -type l | wc -l) programs, all from the packages of '$1' and the base system"
}

case $1 in
  headers) headers "$2" "$3" ;;
  programs) programs "$2" "$3" ;;
  *) usage ;;
esac
