#!/bin/sh
# What clean-root.sh runs in its own Debian for a foreign processor, by qemu-user. Foreign -dev packages
# may push out native ones, so run it nowhere else.
#
# Usage: test-foreign.sh ARCHITECTURE [unit]
# With "unit", the unit and conformance tests alone.
set -eu
cd "$(dirname "$0")/../.."
architecture=$1 extent=${2:-all}

dpkg --add-architecture "$architecture"
scripts/lib/install-packages.sh dpkg-dev
# DEB_HOST_GNU_TYPE and the like.
eval "$(dpkg-architecture --host-arch "$architecture" --print-set)"
scripts/lib/install-packages.sh cmake dbus-daemon "g++-$(echo "$DEB_HOST_GNU_TYPE" | tr _ -)" ninja-build \
  pkg-config python3 python3-dbus python3-gi qemu-user "libglib2.0-dev:$architecture" "libgmock-dev:$architecture" \
  "libgtest-dev:$architecture" "libjson-glib-dev:$architecture" "libstdc++6:$architecture" \
  "libsystemd-dev:$architecture"

export PKG_CONFIG_LIBDIR="/usr/lib/$DEB_HOST_MULTIARCH/pkgconfig:/usr/share/pkgconfig"
# The programs do not run before qemu goes in between, so ctest looks for their tests when it starts.
cmake --preset dev --toolchain cmake/foreign.cmake \
  -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST
if [ "$extent" = unit ]; then
  set -- --target conformance-tests unit-tests tevrol-partner
else
  set --
fi
cmake --build --preset dev "$@"

# Tests start programs, and death tests themselves: each gets a script under its name that starts it
# through qemu. Its process is called by that name too, and so is what it sees as its path.
mkdir build/qemu
find "$PWD/build/dev" -type f -perm -u+x ! -path '*/CMakeFiles/*' | while read -r program; do
  mv "$program" "$program.$architecture"
  qemu=$PWD/build/qemu/${program##*/}
  ln -s "/usr/bin/qemu-$DEB_HOST_GNU_CPU" "$qemu"
  # shellcheck disable=SC2016 # for the script
  printf '#!/bin/sh\nexec %s -0 "$0" %s.%s "$@"\n' "$qemu" "$program" "$architecture" >"$program"
  chmod +x "$program"
done
if [ "$extent" = unit ]; then
  build/dev/tests/conformance/conformance-tests --gtest_brief=1
  ctest --preset dev -L unit
else
  # Without the model, which is the same in every build.
  ctest --preset dev -LE once
fi
