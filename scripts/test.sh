#!/bin/sh
# Runs all tests: installs what is missing, builds and calls ctest. Arguments go to ctest.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  dbus dbus-bin git make python3 spin systemd

# Warnings are errors in CI only: a newer compiler must not stop a user's build.
cmake --preset dev -DCMAKE_COMPILE_WARNING_AS_ERROR="${CI:-OFF}"
cmake --build --preset dev
ctest --preset dev "$@"
