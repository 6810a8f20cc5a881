#!/bin/sh
# In a fresh Debian, in a folder that check-packages.sh has filled: installs the packages in shared/
# and static/ one after the other and builds and runs the example application against each.
set -eu
fail() { echo "failed: $1" >&2; exit 1; }

apt-get update >/dev/null
for kind in shared static; do
  # By themselves, before anything that they might forget to ask for.
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "./$kind"/*.deb \
    >output 2>&1 || { cat output >&2; fail "the packages do not install"; }
  getent group tevrol >/dev/null || fail "no group"
  [ -f /usr/share/dbus-1/system.d/org.ulmar.Tevrol.conf ] || fail "no bus policy"

  ./install-packages.sh g++ cmake make
  { cmake -S consumer -B "$kind/by-cmake" -DEXAMPLE="$PWD/minimal.cpp" &&
    cmake --build "$kind/by-cmake"; } >output 2>&1 || { cat output >&2; fail "by CMake"; }
  # shellcheck disable=SC2046 # words on purpose
  g++ -std=c++17 minimal.cpp $(pkg-config --cflags --libs tevrol-dbus-remote) \
    -o "$kind/by-pkg-config"
  for application in "$kind/by-cmake/application" "$kind/by-pkg-config"; do
    linked=static
    if ldd "$application" | grep -q libtevrol-dbus-remote; then linked=shared; fi
    [ "$linked" = "$kind" ] || fail "$application is linked $linked"
    ./run-pair.sh "$application"
  done

  apt-get purge -y "tevrol-dbus-remote*" >output 2>&1 || { cat output >&2; fail "purge"; }
  if find / -xdev \( -path /proc -o -path /project -o -path /var \) -prune -o \
    -name '*tevrol*' -print | grep .; then
    fail "left behind"
  fi
done
echo "the packages install, serve and leave, shared and static"
