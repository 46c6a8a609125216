#!/usr/bin/env bash
# The checks of ./run check find what they are for: each is shown a small tree that breaks its rules.
set -euo pipefail
scripts=${RYX_SOURCE_DIR:-$(dirname "${BASH_SOURCE[0]}")/..}/scripts
scripts=$(cd "$scripts" && pwd)
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failures=0

fail() {
  printf 'FAIL: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# file PATH LINE...
file() {
  mkdir -p "$tree/$(dirname "$1")"
  printf '%s\n' "${@:2}" >"$tree/$1"
}

# finds CHECK WHERE: the check fails, and its output names that place and no other.
finds() {
  local output status=0
  output=$("$scripts/$1" "$tree" 2>&1) || status=$?
  [ $status != 0 ] || fail "$1 passes, but there is $2"
  [ "$(grep -c . <<<"$output")" = 1 ] && [[ $output = "$2"* ]] ||
    fail "$1 should name $2 alone, says: $output"
}

passes() {
  local output
  output=$("$scripts/$1" "$tree" 2>&1) || fail "$1 should pass, says: $output"
}

# wrong_include FILE INCLUDE: layering finds it as the second line of that file.
wrong_include() {
  file "$1" '#pragma once' "$2"
  finds check-layering "$1:2:"
  rm "$tree/$1"
}

file ryx/a.h '#include <vector>' '#include "ryx/api.h"' '#include <ryx/api.h>'
file platform/base/a.h '#include <sys/epoll.h>' '  #  include "platform/base/b.h"'
file lib/a.cpp '#include "lib/b.h"' '#include "platform/base/a.h"' '#include "ryx/a.h"'
file switch/hub/a.cpp '#include <libmnl/libmnl.h>' '#include "platform/base/a.h"' '#include "switch/hub/a.h"'
file examples/a.cpp '#include <ryx/ryx.h>' '// #include "platform/base/a.h"'
file tests/a_test.cpp '#include "platform/base/a.h"' '#include "lib/b.h"' '#include "switch/hub/a.h"'
passes check-layering

wrong_include platform/base/bad.h '#include "lib/b.h"'
wrong_include platform/base/bad.h '#include "ryx/a.h"'
wrong_include platform/base/bad.cpp '#include <switch/hub/a.h>'
wrong_include ryx/inline/types/bad.h '  #  include "platform/base/a.h"'
wrong_include ryx/bad.h '#include <lib/b.h>'
wrong_include ryx/bad.h '#include "switch/hub/a.h"'
wrong_include lib/bad.cpp '#include "switch/hub/a.h"'
wrong_include lib/bad.cpp '#include "tests/support/a.h"'
wrong_include switch/sim/bad.cpp '#include "lib/b.h"'
wrong_include switch/sim/bad.cpp '#include "ryx/a.h"'
wrong_include examples/bad.cpp '#include "platform/base/a.h"'
wrong_include platform/base/bad.h '#include "../../lib/b.h"'
wrong_include platform/base/bad.h '#include "a.h"'
wrong_include platform/base/bad.h '#include HEADER'
passes check-layering

passes check-text
file lib/bad.cpp 'int a;' 'int b; '
finds check-text lib/bad.cpp:2:
for word in T''ODO F''IXME X''XX H''ACK s''tub; do
  file lib/bad.cpp "// $word: later"
  finds check-text lib/bad.cpp:1:
done
file lib/bad.cpp '// mkstemp("XXXXXX"), XxxMgrSm, hacking'
passes check-text

if [ $failures = 0 ]; then echo "all checks find their faults"; else exit 1; fi
