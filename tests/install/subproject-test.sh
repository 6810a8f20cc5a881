#!/bin/sh
# Builds an application in a project that has this one in a subfolder: it gets the library, and nothing
# that it has not asked for. The parent's own variables, modules, headers and targets stay its own.
#
# Usage: subproject-test.sh SOURCE_FOLDER
set -eu
source=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "failed: $1" >&2; exit 1; }

# The parent has a module GIO of its own, a target called as an example is, and headers called as
# this project's are.
mkdir -p "$work/own/common" "$work/own/tevrol"
echo '#define OWN_MUTEX 1' >"$work/own/common/PTMutex.h"
echo '#define OWN_ENGINE 1' >"$work/own/tevrol/engine.h"
cat >"$work/headers.cpp" <<'END'
// Its own headers first or last: each is what it asks for.
#include <ipc/tevrol-dbus-remote.h>
#include <common/PTMutex.h>
#include <tevrol/channel.h>
#include <tevrol/engine.h>
#include <tevrol/version.h>
#if !OWN_MUTEX || !OWN_ENGINE || !defined TEVROL_VERSION_MAJOR
#error "another's header"
#endif
END
cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.16)
project(parent LANGUAGES CXX)
include(CTest)
find_package(PkgConfig REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET glib-2.0)
add_custom_target(minimal)
add_subdirectory($source channel)
add_executable(application $source/examples/minimal.cpp)
target_link_libraries(application PRIVATE tevrol::dbus-remote)
foreach(order BEFORE AFTER)
  add_library(headers-\${order} OBJECT headers.cpp)
  target_link_libraries(headers-\${order} PRIVATE tevrol::dbus-remote tevrol::channel)
  target_include_directories(headers-\${order} \${order} PRIVATE own)
endforeach()
END
configure() {
  cmake -G Ninja -S "$work" -B "$work/build" "$@" >"$work/output" 2>&1 ||
    { cat "$work/output" >&2; fail "it does not configure with $*"; }
}
configure
cmake --build "$work/build" --target application headers-BEFORE headers-AFTER >"$work/output" 2>&1 ||
  { cat "$work/output" >&2; fail "it does not build"; }
[ -x "$work/build/application" ] || fail "no application"
[ ! -e "$work/build/channel/programs" ] || fail "the programs are built"
grep -qx 'BUILD_TESTING:BOOL=ON' "$work/build/CMakeCache.txt" ||
  fail "the parent's BUILD_TESTING: $(grep BUILD_TESTING "$work/build/CMakeCache.txt")"
! grep -q '^BUILD_SHARED_LIBS' "$work/build/CMakeCache.txt" || fail "the parent's BUILD_SHARED_LIBS"

# install_as NAME: into a folder NAME.
install_as() {
  cmake --install "$work/build" --prefix "$work/$1" --component runtime >"$work/output" 2>&1 ||
    { cat "$work/output" >&2; fail "it does not install"; }
}
install_as unasked
[ ! -e "$work/unasked" ] || fail "it installs: $(find "$work/unasked" -type f)"
configure -DTEVROL_INSTALL=ON
install_as asked
[ -e "$work/asked/share/dbus-1/system.d/org.ulmar.Tevrol.conf" ] || fail "nothing is installed where it is asked for"

# Programs and examples beside the parent's targets, too.
configure -DTEVROL_DEVELOPMENT=ON
echo "usable as a subproject, which takes nothing of its parent's"
