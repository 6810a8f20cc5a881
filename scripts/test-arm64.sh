#!/bin/sh
# What check-arm64.sh runs in its own Debian: installs foreign packages, so run it nowhere else.
set -eu
cd "$(dirname "$0")/.."

dpkg --add-architecture arm64
scripts/install-packages.sh cmake dbus-daemon g++-aarch64-linux-gnu ninja-build pkg-config \
  python3 qemu-user libglib2.0-dev:arm64 libgmock-dev:arm64 libgtest-dev:arm64 \
  libjson-glib-dev:arm64 libstdc++6:arm64 libsystemd-dev:arm64

export PKG_CONFIG_LIBDIR=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig
cmake --preset dev --toolchain cmake/arm64.cmake
cmake --build --preset dev

# Tests start these themselves, which the kernel cannot: qemu goes in between, under the name that
# was called.
for program in partner/tevrol-partner tools/tevrol-private-bus tools/tevrolctl; do
  path=$PWD/build/dev/$program
  mv "$path" "$path.arm64"
  printf '#!/bin/sh\nexec /usr/bin/qemu-aarch64 -0 "$0" %s.arm64 "$@"\n' "$path" >"$path"
  chmod +x "$path"
done
ctest --preset dev
