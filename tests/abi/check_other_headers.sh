#!/bin/sh
# Builds the library against platform headers that stand elsewhere: check_other_headers.sh SOURCE_FOLDER
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cp -R "$1/infra/platform/include/." "$work/include"
for header in "$work"/include/platform/*.h; do
  sed 's|PLATFORM_BEGIN_DECLS|OTHER_BEGIN|; s|PLATFORM_END_DECLS|OTHER_END|; s|platform/decls.h|platform/other.h|' \
    "$header" >"$work/header"
  mv "$work/header" "$header"
done
mv "$work/include/platform/decls.h" "$work/include/platform/other.h"

cmake -S "$1" -B "$work/build" -G Ninja -DDATAMORPH_PLATFORM_INCLUDE="$work/include" \
  -DDATAMORPH_LAB=OFF -DDATAMORPH_TESTS=OFF >"$work/log" && cmake --build "$work/build" >>"$work/log" || {
  cat "$work/log"
  exit 1
}
ninja -C "$work/build" -t deps >"$work/deps"
grep -qF "$work/include/platform/types.h" "$work/deps"
! grep -F "$1/infra/platform/include" "$work/deps"
