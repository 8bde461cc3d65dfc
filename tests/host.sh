#!/usr/bin/env bash
# An application builds against the installed library as the README says: its example, found by CMake and by pkg-config.
# usage: tests/host.sh BUILD-DIRECTORY
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >/dev/null
# What was installed may move, as a package's tree does.
mv "$work/first" "$work/installed"
awk '/^```cpp/ {inside = 1; next} /^```/ {inside = 0} inside' README.md >"$work/main.cpp"
cat >"$work/CMakeLists.txt" <<'EOT'
cmake_minimum_required(VERSION 3.25)
project(host CXX)
find_package(VelkorSync REQUIRED)
add_executable(shared main.cpp)
target_link_libraries(shared PRIVATE VelkorSync::VelkorSync)
add_executable(static main.cpp)
target_link_libraries(static PRIVATE VelkorSync::VelkorSyncStatic)
EOT
cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/installed" >/dev/null
cmake --build "$work/build" >"$work/log" || { cat "$work/log" >&2; exit 1; }

description=$(dirname "$(find "$work/installed" -name VelkorSync.pc)")
flags=$(PKG_CONFIG_PATH=$description pkg-config --cflags --libs VelkorSync)
# shellcheck disable=SC2086  # the flags are words
g++ "$work/main.cpp" $flags -o "$work/plain"
echo "host: the README's example builds against the installed library"
