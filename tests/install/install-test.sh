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

fail() { echo "failed: $1" >&2; exit 1; }
# Shows its output only when it fails.
quietly() { "$@" >"$work/output" 2>&1 || { cat "$work/output" >&2; fail "$*"; }; }

# ---- Install ----
# The libraries' folder is a whole path in the one case, and below the prefix in the others.
set -- -DCMAKE_BUILD_TYPE=Release -DTEVROL_DEVELOPMENT=OFF
if [ "$kind$log" = sharedplatform-log ]; then
  set -- "$@" -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR="$prefix/lib"
else
  set -- "$@" -DCMAKE_INSTALL_LIBDIR=lib
fi
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
# But for whole paths, the prefix is not the one that was configured.
if [ "$kind$log" = staticstand-in ] && unshare --mount true 2>/dev/null; then
  # By somebody who cannot write to the build tree: CMake's own list of files is all that fails.
  # shellcheck disable=SC2016 # for the inner shell
  unshare --mount sh -c 'mount --bind "$1" "$1" && mount -o remount,bind,ro "$1" &&
    exec cmake --install "$1" --prefix "$2"' sh "$work/build" "$prefix" >"$work/output" 2>&1 || true
  complaints=$(grep -A 3 'CMake Error' "$work/output" | grep -c 'CMake Error\|install_manifest.txt$')
  [ "$complaints" -eq 2 ] || { cat "$work/output" >&2; fail "a build tree without write access"; }
else
  quietly cmake --install "$work/build" --prefix "$prefix"
fi
quietly cmake --install "$build" --prefix "$work/tools" --component tools

# ---- The pages: links lead somewhere ----
find "$prefix/share/doc" -name '*.md' | while read -r page; do
  # shellcheck disable=SC2016 # no expression
  sed '/^```/,/^```/d' "$page" | grep -o '](\([^):#]\{1,\}\)[)#]' | sed 's/^](//; s/.$//' |
    while read -r link; do
      [ -e "${page%/*}/$link" ] || echo "$page links $link"
    done
done >"$work/dead"
[ ! -s "$work/dead" ] || { cat "$work/dead" >&2; fail "dead links"; }

# ---- The programs ----
version=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --modversion tevrol-channel)
for program in tevrolctl "tevrolctl open" tevrol-partner tevrol-private-bus; do
  # shellcheck disable=SC2086 # words on purpose
  printed=$("$work/tools/bin/"$program --version) || fail "$program --version"
  [ "$printed" = "tevrol-dbus-remote $version" ] || fail "$program --version prints $printed"
done

# ---- The libraries themselves ----
for name in tevrol-dbus-remote tevrol-channel; do
  library=$prefix/lib/lib$name
  # Whichever folder it is built in, it is the same.
  ! grep -alF "$source/src" "$library".* || fail "$name has the name of the source's folder in it"
  if [ "$kind" = shared ]; then
    objdump -p "$library.so" | grep -q "SONAME *lib$name.so.1\$" || fail "SONAME of $name"
    [ "$(readlink "$library.so")" = "lib$name.so.1" ] || fail "the link for linking $name"
    # With the version node that they are in.
    node=$(echo "${name}_1" | tr a-z- A-Z_)
    nm -D --defined-only --demangle "$library.so" | cut -d ' ' -f 3- | sort -u >"$work/exported"
    { echo "$node"; sed "s/\$/@@$node/" "$here/$name-symbols.txt"; } | sort -u >"$work/expected"
    [ "$log" = stand-in ] || sed -i '/^__dlog_print@/d' "$work/expected"
    diff "$work/expected" "$work/exported" || fail "$name exports something else"
    grep -q "^ (symver)$node " "$source/debian/lib${name}1.symbols" ||
      fail "the Debian package of $name knows no $node"
  else
    [ ! -e "$library.so" ] || fail "a shared library in a static build"
    nm --defined-only "$library.a" >"$work/symbols"
    if grep -q ' __dlog_print$' "$work/symbols"; then found=stand-in; else found=platform-log; fi
    [ "$found" = "$log" ] || fail "__dlog_print of $name comes from $found"
  fi
done

# ---- Applications ----
export LD_LIBRARY_PATH="$prefix/lib:$work"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
quietly cmake -G Ninja -S "$here/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEXAMPLES="$source/examples"
quietly cmake --build "$work/by-cmake"
if [ "$kind$log" = sharedstand-in ]; then
  # The build tree serves like an installation.
  quietly cmake -G Ninja -S "$here/consumer" -B "$work/by-build-tree" \
    -Dtevrol-channel_DIR="$work/build" -Dtevrol-dbus-remote_DIR="$work/build" \
    -DEXAMPLES="$source/examples"
  quietly cmake --build "$work/by-build-tree" --target both
  "$work/by-build-tree/both" || fail "a program with both, by the build tree"
fi

mkdir "$work/by-pkg-config"
compile() {
  library=$1 program=$2
  shift 2
  # shellcheck disable=SC2046,SC2086 # words on purpose
  quietly "$CXX" -std=c++17 "$@" $(pkg-config --cflags --libs $library) \
    -o "$work/by-pkg-config/$program"
}
compile tevrol-dbus-remote application "$source/examples/minimal.cpp"
compile tevrol-dbus-remote log-lines "$here/consumer/log-lines.cpp"
compile tevrol-dbus-remote own-log "$here/consumer/log-lines.cpp" "$here/consumer/own-log.cpp"
compile tevrol-channel product-client "$source/examples/product-client.cpp"
compile tevrol-channel product-service "$source/examples/product-service.cpp"
# One program may use both.
compile "tevrol-dbus-remote tevrol-channel" both "$here/consumer/both.cpp" \
  -DPACKAGE_VERSION="\"$(pkg-config --modversion tevrol-channel)\""

for way in by-cmake by-pkg-config; do
  quietly env PATH="$work/tools/bin:$PATH" "$here/run-pair.sh" "$work/$way/application"
  quietly env PATH="$work/tools/bin:$PATH" "$here/run-product.sh" "$work/$way"
  "$work/$way/both" || fail "$way: a program with both"
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
