#!/usr/bin/env bash
# The symbol table of libryx.so; and that the check of it would find what is wrong, with libraries
# that are wrong on purpose.
set -euo pipefail
check=$RYX_SOURCE_DIR/scripts/check-symbols
map=$RYX_SOURCE_DIR/cmake/exports.map
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0

fail() {
  printf 'FAIL: %s\n' "$*" >&2
  failures=$((failures + 1))
}

if [ -z "$RYX_SANITIZE" ]; then
  "$check" "$RYX_BINARY_DIR/lib/libryx.so" || fail "libryx.so"
else
  echo "what libryx.so needs is not checked: this build needs a sanitizer's runtime"
  "$check" "$RYX_BINARY_DIR/lib/libryx.so" --any-needed || fail "libryx.so"
fi

# link NAME SONAME OPTION...: the probe as a library.
link() {
  "$RYX_CXX" -shared -fuse-ld=lld -o "$dir/$1" "-Wl,-soname,$2" "${@:3}"
}

# finds NAME TEXT: the check of that library fails and tells of that.
finds() {
  local output
  if output=$("$check" "$dir/$1"); then fail "$1 passes the check: $2"; fi
  grep -qE -- "$2" <<<"$output" || fail "the check of $1 does not tell: $2, but: $output"
}

names() { nm -D --defined-only "$dir/$1" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort -u; }

compile=("$RYX_CXX" -std=c++20 -O1 -fPIC -fvisibility=hidden -fvisibility-inlines-hidden -c)
"${compile[@]}" -o "$dir/probe.o" "$RYX_SOURCE_DIR/tests/symbols/probe.cpp"
"${compile[@]}" -o "$dir/leak.o" -DLEAK "$RYX_SOURCE_DIR/tests/symbols/probe.cpp"

# The map loses nothing of ours, and lets nothing else through.
link good.so libryx.so.1 "$dir/probe.o" "-Wl,--version-script=$map"
link unversioned.so libryx.so.1 "$dir/probe.o"
"$check" "$dir/good.so" || fail "the map lets something through"
lost=$(comm -13 <(names good.so) <(names unversioned.so) | grep 3ryx | grep -v '^_ZN*K*St' || true)
[ -z "$lost" ] || fail "the map loses $lost"
for kind in T[VISTH] Th Tv Tc NO NKR GVZ Z; do
  for namespace in 3ryx 3ryx8platform; do
    names good.so | grep -E "^_Z$kind.*$namespace" >/dev/null ||
      fail "the probe shows no _Z$kind in $namespace"
  done
done

# What is wrong is found.
finds unversioned.so '^stray: has no version'
finds unversioned.so '^_ZNSt8_Rb_tree.*: has no version'
sed '/^RYX_PRIVATE/,$d' "$map" >"$dir/public.map"
link public.so libryx.so.1 "$dir/probe.o" "-Wl,--version-script=$dir/public.map"
finds public.so '^_ZThn16_NK3ryx8platform.*: shows the platform under RYX_1'
finds public.so 'an interface is missing'
link leak.so libryx.so.1 "$dir/leak.o" "-Wl,--version-script=$map"
finds leak.so '^_ZN3ryx4leakERNS_8platform3KeyE: shows the platform under RYX_1'
echo 'RYX_1 { global: extern "C++" { *ryx::*; }; _ZN6ryxtra*; local: *; };
  RYX_PRIVATE { global: _ZN3ryx*; };' >"$dir/wide.map"
link wide.so libryx.so.1 "$dir/probe.o" "-Wl,--version-script=$dir/wide.map"
finds wide.so '^_ZNSt8_Rb_tree.*: is outside namespace ryx, under RYX_1'
finds wide.so '^_ZN6ryxtra8strangerEv: is outside namespace ryx, under RYX_1'
finds wide.so '^_ZN3ryx9platform24nearEv: is outside namespace ryx::platform, under RYX_PRIVATE'
link libother.so libother.so.3 "$dir/probe.o"
finds libother.so "its SONAME is 'libother.so.3' instead of libryx.so.1"
link needy.so libryx.so.1 "$dir/probe.o" "-Wl,--version-script=$map" -Wl,--no-as-needed "$dir/libother.so"
finds needy.so 'it needs libother.so.3'

if [ $failures = 0 ]; then echo "the symbol table is right"; else exit 1; fi
