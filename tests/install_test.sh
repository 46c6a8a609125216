#!/usr/bin/env bash
# What is installed is enough for an agent, and shows nothing else: the public headers, the library,
# its feeds, and what find_package(Ryx) reads.
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
  '^include/ryx/[a-z0-9_/]+\.h$|^lib[^ ]*/libryx\.so[.0-9]*$|^lib[^ ]*/ryx/feed_[a-z]+\.so$|^lib[^ ]*/cmake/Ryx/[^/]+\.cmake$' ||
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

# An agent's own project, which has the installed files alone.
mkdir "$dir/agent"
cd "$dir/agent"
for header in $headers; do echo "#include <ryx/$header>"; done >agent.cpp
echo 'int main() {}' >>agent.cpp
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(Agent LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Ryx REQUIRED)
add_executable(agent agent.cpp)
target_link_libraries(agent Ryx::ryx)
END
{
  cmake -G Ninja -B build "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_COMPILER=$RYX_CXX" \
    "-DCMAKE_CXX_FLAGS=${RYX_SANITIZE:+-fsanitize=$RYX_SANITIZE} -Wl,--no-as-needed" &&
    cmake --build build
} >"$dir/log" 2>&1 || fail "an agent does not build: $(cat "$dir/log")"
build/agent || fail "an agent does not start"
readelf -dW build/agent | grep 'NEEDED.*libryx\.so\.1\]' >/dev/null || fail "the agent does not link libryx.so.1"
