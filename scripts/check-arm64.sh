#!/bin/sh
# The whole suite on another processor: library, partner and tests cross-built for arm64 and run
# under qemu-user against this machine's own dbus-daemon. Foreign -dev packages may push out native
# ones, so all of it happens in a Debian of its own (scripts/root.sh). As root; about 2 GB in a
# temporary folder. Arguments go to ctest.
set -eu
cd "$(dirname "$0")/.."
. scripts/root.sh

make_root "$(dpkg --print-architecture)"
chroot "$root" dpkg --add-architecture arm64
chroot "$root" /project/scripts/install-packages.sh \
  cmake dbus-daemon g++-aarch64-linux-gnu ninja-build pkg-config qemu-user \
  libglib2.0-dev:arm64 libgmock-dev:arm64 libgtest-dev:arm64 libstdc++6:arm64 libsystemd-dev:arm64
chroot "$root" /bin/sh -eu -c '
cd /project
export PKG_CONFIG_LIBDIR=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig
cmake --preset dev --toolchain cmake/arm64.cmake
cmake --build --preset dev
# The tests start these two themselves, which the kernel cannot: qemu goes in between, under the
# name that was called.
for program in partner/tevrol-partner tools/tevrol-private-bus; do
  mv "build/dev/$program" "build/dev/$program.arm64"
  printf "#!/bin/sh\nexec /usr/bin/qemu-aarch64 -0 \"\$0\" /project/build/dev/%s.arm64 \"\$@\"\n" \
    "$program" >"build/dev/$program"
  chmod +x "build/dev/$program"
done
exec ctest --preset dev "$@"' test "$@"
