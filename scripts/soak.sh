#!/bin/sh
# Runs the channel under load for SECONDS (20), with a SEED that it prints: a partner process that
# is killed and restarted at random, refused announcements, requests and notifications both ways.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev
cmake --preset dev >/dev/null
cmake --build --preset dev --target tevrol-soak
# So that what is in use can be counted: no caches of freed memory, neither GLib's nor the
# allocator's of each thread.
export G_SLICE=always-malloc GLIBC_TUNABLES=glibc.malloc.tcache_count=0
build/dev/tests/soak/tevrol-soak "${1:-20}" ${2+"$2"}
