#!/bin/sh
# Reads the built library: check_library.sh CHECK LIBRARY [SOURCE_FOLDER BUILD_FOLDER]
set -eu
check=$1
library=$2
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$library: $*" >&2
  exit 1
}

same() {
  diff -u "$1" "$2" || fail "$3"
}

case $check in
  exported) # exactly the listed names, each with the library's version
    nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }' | LC_ALL=C sort >"$work/found"
    sed 's/$/@@LIBDATAMORPH_1/' "$here/exported_symbols.txt" | LC_ALL=C sort >"$work/expected"
    same "$work/expected" "$work/found" 'exports another set of names'
    ;;
  types) # each of the listed names stands in exports_checks.h, once
    sed -n 's/.*CHECK_\(ADDRESS\|FUNCTION\|ROUTINE\)(\([a-z0-9_]*\).*/\2/p' "$here/exports_checks.h" |
      grep -vx name | LC_ALL=C sort >"$work/found"
    LC_ALL=C sort "$here/exported_symbols.txt" >"$work/expected"
    same "$work/expected" "$work/found" 'exports names whose types are not checked'
    ;;
  undefined) # from the platform only what its interface has; the rest from the C library
    nm -D --undefined-only "$library" | awk '$1 == "U" { print $2 }' >"$work/all"
    [ -s "$work/all" ] || fail 'no undefined symbol found'
    grep -v '@GLIBC_' "$work/all" | LC_ALL=C sort >"$work/platform" || true
    LC_ALL=C sort "$here/platform_symbols.txt" >"$work/allowed"
    LC_ALL=C comm -23 "$work/platform" "$work/allowed" >"$work/strays"
    [ ! -s "$work/strays" ] || fail "needs what no platform has: $(tr '\n' ' ' <"$work/strays")"
    ;;
  needed) # nothing but the C library; found by its own name
    readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >"$work/found"
    echo libc.so.6 >"$work/expected"
    same "$work/expected" "$work/found" 'needs other libraries'
    readelf -d "$library" | grep -q 'SONAME.*\[libdatamorph.so.1\]' || fail 'has another soname'
    ;;
  hardening)
    readelf -dW "$library" | grep -q 'BIND_NOW\|FLAGS.*NOW' || fail 'binds lazily'
    readelf -lW "$library" | grep -q GNU_RELRO || fail 'has no RELRO'
    readelf -lW "$library" | grep GNU_STACK | grep -q ' RW ' || fail 'has an executable stack'
    ! readelf -dW "$library" | grep -qE 'TEXTREL|RPATH|RUNPATH' || fail 'has text relocations or a run path'
    ! readelf -lW "$library" | grep -q 'LOAD.* RWE ' || fail 'has pages that are both written and run'
    ;;
  switches) # every object of the library was compiled with these
    readelf -p .GCC.command.line "$library" | sed -n 's/^ *\[ *[0-9a-f]*\]  //p' >"$work/all"
    [ -s "$work/all" ] || fail 'does not tell how it was compiled'
    for switch in -fstack-protector-strong -fstack-clash-protection -fcf-protection=full \
      -ftrivial-auto-var-init=zero; do
      ! grep -vqe "$switch" "$work/all" || fail "was not all compiled with $switch"
    done
    nm -D --undefined-only "$library" | awk '{ sub(/@.*/, "", $2); print $2 }' >"$work/undefined"
    grep -qx __stack_chk_fail "$work/undefined" || fail 'has no stack protector'
    # The checked functions stand where a plain one would have to trust its caller.
    grep -qx '__[a-z]*printf_chk' "$work/undefined" || fail 'was not compiled with _FORTIFY_SOURCE'
    ! grep -xE 'v?sprintf|v?fprintf|vsnprintf|strcpy|strcat' "$work/undefined" || fail 'calls an unchecked function'
    objdump -d --no-show-raw-insn "$library" >"$work/code"
    # How large an array is whose size is reckoned when it is made, only level 3 knows: copies into
    # such arrays are checked ones.
    for function in vrrp_get_table ethpm_update_port_state_reason; do
      awk -v name="$function" '/^[0-9a-f]+ <.*>:$/ { inside = index($2, name) } inside' "$work/code" |
        grep -q 'call.*<__memcpy_chk' || fail "$function was not compiled with _FORTIFY_SOURCE=3"
    done
    # Each exported function may be jumped to.
    nm -D --defined-only "$library" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' >"$work/functions"
    while read -r name; do
      grep -A 1 "<$name\(@@LIBDATAMORPH_1\)\?>:" "$work/code" | grep -q endbr || fail "$name has no landing mark"
    done <"$work/functions"
    ;;
  size) # under 150 KiB when stripped
    strip -o "$work/stripped" "$library"
    size=$(wc -c <"$work/stripped")
    echo "$size bytes"
    [ "$size" -lt 153600 ] || fail "has $size bytes when stripped"
    ;;
  paths) # nothing of the machine that built it
    for folder in "$3" "$4"; do
      ! grep -qF "$folder" "$library" || fail "holds the path $folder"
    done
    # A message names its source file as the project's tree has it.
    module=infra/convert_libs/comps/libdatamorph/libdatamorph_psshlpr.cpp
    tr '\0' '\n' <"$library" | grep -axqF "$module" || fail "does not name $module"
    ;;
  *) fail "no such check: $check" ;;
esac
