#!/bin/sh
# Makes the Debian packages, with the shared and with the static library, and shows in a fresh
# Debian that they install there by themselves, that the example application builds against them by
# CMake and by pkg-config and talks to a partner, and that they can be removed. As root.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) dpkg-dev file

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp -r tests/install/. examples/minimal.cpp scripts/install-packages.sh "$folder"

# Shows its output only when it fails.
quietly() { "$@" >"$folder/output" 2>&1 || { cat "$folder/output" >&2; exit 1; }; }
package() {
  quietly cmake --preset package -B "build/package-$1" -DBUILD_SHARED_LIBS="$2"
  quietly cmake --build "build/package-$1"
  quietly cpack -G DEB --config "build/package-$1/CPackConfig.cmake" -B "$folder/$1"
  rm -rf "$folder/$1/_CPack_Packages"
}
package shared ON
package static OFF

scripts/in-clean-root.sh "$folder" ./use-packages.sh
