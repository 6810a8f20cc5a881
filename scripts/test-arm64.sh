#!/bin/sh
# What check-arm64.sh runs in its own Debian: installs foreign packages, so run it nowhere else.
set -eu
cd "$(dirname "$0")/.."

dpkg --add-architecture arm64
scripts/install-packages.sh cmake dbus-daemon g++-aarch64-linux-gnu ninja-build pkg-config \
  python3 qemu-user libglib2.0-dev:arm64 libgmock-dev:arm64 libgtest-dev:arm64 \
  libjson-glib-dev:arm64 libstdc++6:arm64 libsystemd-dev:arm64

export PKG_CONFIG_LIBDIR=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig
# The programs do not run before qemu goes in between, so ctest looks for their tests when it starts.
cmake --preset dev --toolchain cmake/arm64.cmake \
  -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST
cmake --build --preset dev

# Tests start programs, and death tests themselves: each gets a script under its name that starts it
# through qemu. Its process is called by that name too, and so is what it sees as its path.
mkdir build/qemu
find "$PWD/build/dev" -type f -perm -u+x ! -path '*/CMakeFiles/*' | while read -r program; do
  mv "$program" "$program.arm64"
  qemu=$PWD/build/qemu/${program##*/}
  ln -s /usr/bin/qemu-aarch64 "$qemu"
  # shellcheck disable=SC2016 # for the script
  printf '#!/bin/sh\nexec %s -0 "$0" %s.arm64 "$@"\n' "$qemu" "$program" >"$program"
  chmod +x "$program"
done
# Without the model, which is the same in every build.
ctest --preset dev -LE once
