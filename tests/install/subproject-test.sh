#!/bin/sh
# Builds an application in a project that has this one in a subfolder: it gets the library, and
# neither the programs for development nor packages that it has not asked for.
#
# Usage: subproject-test.sh SOURCE_FOLDER
set -eu
source=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "failed: $1" >&2; exit 1; }

cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(parent LANGUAGES CXX)
add_subdirectory($source channel)
add_executable(application $source/examples/minimal.cpp)
target_link_libraries(application PRIVATE tevrol::dbus-remote)
END
{ cmake -G Ninja -S "$work" -B "$work/build" && cmake --build "$work/build"; } \
  >"$work/output" 2>&1 || { cat "$work/output" >&2; fail "it does not build"; }
[ -x "$work/build/application" ] || fail "no application"
[ ! -e "$work/build/channel/tools" ] || fail "the tools are built"
found=$(find "$work/build" -name 'CPack*')
[ -z "$found" ] || fail "packages of a subproject: $found"
echo "usable as a subproject, which makes no packages"
