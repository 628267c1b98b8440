#!/bin/sh
# gcov for gcovr (scripts/coverage.sh), without the branches of what the compiler adds for an
# exception that passes through a line: it takes apart what stood there until then, and asks of each
# temporary whether there is one. gcov marks the way into such code as "throw", which gcovr leaves
# out, but not the branches in it. They stand in blocks that only an exception reaches, "$$$$$" when
# none did, on a line that is otherwise reached without one. A line of a handler, all of whose blocks
# are such ("====="), keeps its branches.
set -eu
said=$(gcov --all-blocks "$@")
printf '%s\n' "$said"
printf '%s\n' "$said" | sed -n "s/^Creating '\(.*\)'\$/\1/p" | while read -r file; do
  awk '
    /^ *[-0-9#=*]+: *[0-9]+:/     { handler = $0 ~ /^ *=/; unwinding = 0 }
    /^ *[0-9*$%]+: *[0-9]+-block/ { unwinding = $0 ~ /^ *[$]/ && !handler }
    /^branch/ && unwinding        { next }
                                  { print }' "$file" >"$file.kept"
  mv "$file.kept" "$file"
done
