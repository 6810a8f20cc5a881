#!/bin/sh
# Installs the library into a temporary prefix and builds and runs applications against it there,
# by its CMake package and by its pkg-config file.
#
# Usage: install-test.sh static|shared stand-in|platform-log SOURCE_FOLDER BUILD_FOLDER COMPILER
# BUILD_FOLDER is where the tools are built; they are installed too and run from there.
set -eu
kind=$1 log=$2 source=$3 build=$4 CXX=$5
export CXX
here=$source/tests/install

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
library=$prefix/lib/libtevrol-dbus-remote

fail() { echo "failed: $1" >&2; exit 1; }
# Shows its output only when it fails.
quietly() { "$@" >"$work/output" 2>&1 || { cat "$work/output" >&2; fail "$*"; }; }

# ---- Install ----
set -- -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_LIBDIR=lib -DTEVROL_DEVELOPMENT=OFF
[ "$kind" = static ] || set -- "$@" -DBUILD_SHARED_LIBS=ON
if [ "$log" = platform-log ]; then
  quietly "$CXX" -std=c++17 -shared -fPIC -I"$source/src" "$here/consumer/own-log.cpp" \
    -o "$work/libplatform-log.so"
  # The linker finds it, as it finds a platform's.
  export LIBRARY_PATH="$work"
  # A path in the one case, a name in the other.
  platform_log=$work/libplatform-log.so
  [ "$kind" = static ] || platform_log=platform-log
  set -- "$@" -DTEVROL_DLOG_LIBRARY="$platform_log"
fi
quietly cmake -G Ninja -S "$source" -B "$work/build" "$@"
quietly cmake --build "$work/build"
# The prefix is not the one that was configured.
quietly cmake --install "$work/build" --prefix "$prefix"
quietly cmake --install "$build" --prefix "$work/tools" --component tools

# ---- The library itself ----
if [ "$kind" = shared ]; then
  objdump -p "$library.so" | grep -q 'SONAME *libtevrol-dbus-remote.so.1$' || fail "SONAME"
  [ "$(readlink "$library.so")" = libtevrol-dbus-remote.so.1 ] || fail "the link for linking"
  nm -D --defined-only --demangle "$library.so" | cut -d ' ' -f 3- | sort -u >"$work/exported"
  sort -u "$here/exported-symbols.txt" >"$work/expected"
  [ "$log" = stand-in ] || sed -i '/^__dlog_print$/d' "$work/expected"
  diff "$work/expected" "$work/exported" || fail "it exports something else"
else
  [ ! -e "$library.so" ] || fail "a shared library in a static build"
  nm --defined-only "$library.a" >"$work/symbols"
  if grep -q ' __dlog_print$' "$work/symbols"; then found=stand-in; else found=platform-log; fi
  [ "$found" = "$log" ] || fail "__dlog_print comes from $found"
fi

# ---- Applications ----
export LD_LIBRARY_PATH="$prefix/lib:$work"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
quietly cmake -G Ninja -S "$here/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEXAMPLE="$source/examples/minimal.cpp"
quietly cmake --build "$work/by-cmake"

mkdir "$work/by-pkg-config"
compile() {
  program=$1
  shift
  # shellcheck disable=SC2046 # words on purpose
  quietly "$CXX" -std=c++17 "$@" $(pkg-config --cflags --libs tevrol-dbus-remote) \
    -o "$work/by-pkg-config/$program"
}
compile application "$source/examples/minimal.cpp"
compile log-lines "$here/consumer/log-lines.cpp"
compile own-log "$here/consumer/log-lines.cpp" "$here/consumer/own-log.cpp"

for way in by-cmake by-pkg-config; do
  quietly env PATH="$work/tools/bin:$PATH" "$here/run-pair.sh" "$work/$way/application"
  linked=static
  if ldd "$work/$way/application" | grep -q libtevrol-dbus-remote; then linked=shared; fi
  [ "$linked" = "$kind" ] || fail "$way links it $linked"

  # No bus: the lines that the channel logs are of no other consequence.
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path="$work/no-bus"
  "$work/$way/own-log" | grep -q '^own log: sandrel: ' || fail "$way: a program's own log"
  lines=$("$work/$way/log-lines" | grep -c '^own log: sandrel: ') || true
  if [ "$log" = platform-log ]; then
    [ "$lines" -gt 0 ] || fail "$way: the platform's log gets nothing"
  else
    [ "$lines" -eq 0 ] || fail "$way: a log of nobody's"
  fi
  unset DBUS_SYSTEM_BUS_ADDRESS
done
echo "installed $kind with $log, used by CMake package and pkg-config"
