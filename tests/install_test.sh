#!/usr/bin/env bash
# What is installed is enough for an agent, and shows nothing else: the public headers, the library,
# its feeds, and what find_package(Ryx) and pkg-config read. The tree may be moved. The guide to a first
# agent (by CMake) and the README's agent (by pkg-config) are followed word by word, with each compiler
# that is there.
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
  '^include/ryx/[a-z0-9_/]+\.h$|^lib[^ ]*/libryx\.so[.0-9]*$|^lib[^ ]*/ryx/feed_[a-z]+\.so$|^lib[^ ]*/cmake/Ryx/[^/]+\.cmake$|^lib[^ ]*/pkgconfig/ryx\.pc$|^bin/ryxd?$|^lib/systemd/system/ryxd\.service$|^share/doc/[^/]+/ryxd\.toml$' ||
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

sanitize=${RYX_SANITIZE:+-fsanitize=$RYX_SANITIZE}
if grep -rlF "$prefix" .; then fail "the place of installation is written down"; fi
# Where sources and build are is in a sanitized build's debug information.
if [ -z "$sanitize" ] && grep -rlF -e "$RYX_SOURCE_DIR" -e "$RYX_BINARY_DIR" .; then
  fail "the place of the build is written down"
fi
mv "$prefix" "$dir/moved"
prefix=$dir/moved
libdir=$(dirname "$(find "$prefix" -name 'libryx.so')")
export PKG_CONFIG_PATH=$libdir/pkgconfig

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

# The files that a document shows, as they stand in it.
take_files() {
  awk '/^```[a-z]+ file=/ { sub(/.*file=/, ""); file = $0; next } /^```/ { file = "" } file { print > file }' \
    "$RYX_SOURCE_DIR/$1"
  if grep -nE '^```(cpp|cmake)$' "$RYX_SOURCE_DIR/$1"; then fail "$1 shows code that is not tried"; fi
}
mkdir "$dir/guide" "$dir/readme"
cd "$dir/guide"
take_files docs/first-agent.md
for file in flapwatch.h main.cpp flapwatch_test.cpp; do [ -s $file ] || fail "the guide has lost $file"; done
cd "$dir/readme"
take_files README.md
for file in watcher.cpp scenario; do [ -s $file ] || fail "the README has lost $file"; done
mkfifo heard

# Builds what stands in this folder with pkg-config's flags. Its headers are no system headers then:
# their warnings show, too.
build_by_pkg_config() {
  local flags
  flags=$(pkg-config --cflags --libs ryx) || fail "pkg-config does not know ryx"
  # shellcheck disable=SC2086
  "$1" -std=c++17 -Wall -Wextra -Wpedantic -Werror $sanitize "$2" $flags "-Wl,-rpath,$libdir" -o agent \
    >"$dir/log" 2>&1 || fail "by pkg-config, with $1: $(cat "$dir/log")"
}

# A sanitizer's runtime is of one compiler.
compilers=$RYX_CXX
if [ -z "$sanitize" ]; then
  compilers=
  for compiler in g++ clang++; do
    if command -v $compiler >/dev/null; then compilers+=" $compiler"; else echo "without $compiler: not installed"; fi
  done
fi
for compiler in $compilers; do
  cd "$dir/guide"
  {
    cmake -G Ninja -B "build-${compiler##*/}" "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_COMPILER=$compiler" \
      "-DCMAKE_CXX_FLAGS=$sanitize -Wall -Wextra -Wpedantic -Werror" &&
      cmake --build "build-${compiler##*/}" && ctest --test-dir "build-${compiler##*/}" --output-on-failure
  } >"$dir/log" 2>&1 || fail "the guide's agent, with $compiler: $(cat "$dir/log")"

  cd "$dir/headers"
  build_by_pkg_config "$compiler" agent.cpp
  # The README's agent works on its scenario until SIGTERM ends it.
  cd "$dir/readme"
  build_by_pkg_config "$compiler" watcher.cpp
  STATEHUBLOCAL=sim:scenario ./agent >heard &
  agent=$!
  exec 3<heard
  line=
  while [ "$line" != "Ethernet1 is INTF_OPER_UP" ]; do
    IFS= read -ru 3 line || fail "the README's agent, with $compiler, ended before it said what it should"
  done
  kill "$agent"
  status=0
  wait "$agent" || status=$?
  [ "$status" = 143 ] || fail "the README's agent, with $compiler, ended with status $status"
done
