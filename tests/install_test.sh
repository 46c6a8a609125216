#!/usr/bin/env bash
# What is installed is enough for an agent, and shows nothing else: the public headers, the library,
# its feeds, and what find_package(Ryx) and pkg-config read. The tree may be moved. The guide to a first
# agent is followed word by word, with each compiler that is there.
set -euo pipefail
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
prefix=$dir/prefix
fail() {
  printf 'FAIL: %s\n' "$*" >&2
  exit 1
}

cmake --install "$RYX_BINARY_DIR" --prefix "$prefix" >"$dir/log" 2>&1 || fail "$(cat "$dir/log")"
cd "$prefix"
strange=$(find . ! -type d -printf '%P\n' | grep -vE \
  '^include/ryx/[a-z0-9_/]+\.h$|^lib[^ ]*/libryx\.so[.0-9]*$|^lib[^ ]*/ryx/feed_[a-z]+\.so$|^lib[^ ]*/cmake/Ryx/[^/]+\.cmake$|^lib[^ ]*/pkgconfig/ryx\.pc$|^bin/ryxd$' ||
  true)
[ -z "$strange" ] || fail "installed, but no part of the SDK: $strange"
headers=$(cd include && find ryx -name '*.h' -printf '%P\n' | sort)
[ "$headers" = "$(cd "$RYX_SOURCE_DIR/ryx" && find . -name '*.h' -printf '%P\n' | sort)" ] ||
  fail "not all public headers are installed: $headers"
# In code, that is: a comment may say where something comes from.
for header in $headers; do
  if sed 's://.*::' "include/ryx/$header" | grep -nwE 'platform|RYX_PRIVATE'; then
    fail "$header mentions the platform"
  fi
done

if grep -rnF "$prefix" . --include='*.cmake' --include='*.pc'; then fail "the place of installation is written down"; fi
mv "$prefix" "$dir/moved"
prefix=$dir/moved
libdir=$(dirname "$(find "$prefix" -name 'libryx.so')")
sanitize=${RYX_SANITIZE:+-fsanitize=$RYX_SANITIZE}

# Every header, in an agent's own project, which has the installed files alone.
mkdir "$dir/headers"
cd "$dir/headers"
for header in $headers; do echo "#include <ryx/$header>"; done >agent.cpp
echo 'int main() {}' >>agent.cpp
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(Agent LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Ryx 0.1 REQUIRED)
add_executable(agent agent.cpp)
target_link_libraries(agent Ryx::ryx)
END
{
  cmake -G Ninja -B build "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_COMPILER=$RYX_CXX" \
    "-DCMAKE_CXX_FLAGS=$sanitize -Wl,--no-as-needed" &&
    cmake --build build
} >"$dir/log" 2>&1 || fail "an agent does not build: $(cat "$dir/log")"
build/agent || fail "an agent does not start"
readelf -dW build/agent | grep 'NEEDED.*libryx\.so\.1\]' >/dev/null || fail "the agent does not link libryx.so.1"

# The guide's files, as they stand in it.
mkdir "$dir/guide"
cd "$dir/guide"
awk '/^```[a-z]+ file=/ { sub(/.*file=/, ""); file = $0; next } /^```/ { file = "" } file { print > file }' \
  "$RYX_SOURCE_DIR/docs/first-agent.md"
for file in flapwatch.h main.cpp flapwatch_test.cpp; do [ -s $file ] || fail "the guide has lost $file"; done
# A sanitizer's runtime is of one compiler.
compilers=$RYX_CXX
if [ -z "$sanitize" ]; then
  compilers=
  for compiler in g++ clang++; do
    if command -v $compiler >/dev/null; then compilers+=" $compiler"; else echo "without $compiler: not installed"; fi
  done
fi
for compiler in $compilers; do
  {
    cmake -G Ninja -B "build-${compiler##*/}" "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_COMPILER=$compiler" \
      "-DCMAKE_CXX_FLAGS=$sanitize -Wall -Wextra -Wpedantic -Werror" &&
      cmake --build "build-${compiler##*/}" && ctest --test-dir "build-${compiler##*/}" --output-on-failure
  } >"$dir/log" 2>&1 || fail "the guide's agent, with $compiler: $(cat "$dir/log")"
done

# By pkg-config, and at work on a simulated switch until SIGTERM ends it.
# shellcheck disable=SC2046
$RYX_CXX -std=c++17 $sanitize main.cpp $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs ryx) \
  "-Wl,-rpath,$libdir" -o flapwatch >"$dir/log" 2>&1 || fail "by pkg-config: $(cat "$dir/log")"
mkfifo output
echo 'interface-add Ethernet1 eth1' >scenario
STATEHUBLOCAL=sim:scenario RYX_TRACE='RyxSdkIntf/0-9' ./flapwatch >/dev/null 2>output &
agent=$!
exec 3<output
while IFS= read -ru 3 line; do [[ $line != *Ethernet1* ]] || break; done
kill "$agent" 2>/dev/null || true
status=0
wait "$agent" || status=$?
[ "$status" = 143 ] || fail "the agent ended with status $status"
