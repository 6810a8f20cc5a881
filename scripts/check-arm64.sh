#!/bin/sh
# The whole suite on another processor: library, partner and tests cross-built for arm64 and run
# under qemu-user against a native dbus-daemon. Foreign -dev packages may push out native ones, so
# all of it happens in a Debian of its own and nothing of this machine changes. As root.
set -eu
cd "$(dirname "$0")/.."

scripts/commit-in-clean-root.sh scripts/test-arm64.sh
