#!/bin/sh
# The whole suite on a 32-bit processor: i386, which a 64-bit PC runs by itself. In a Debian of its
# own, so that no foreign package comes to this machine. As root.
set -eu
cd "$(dirname "$0")/.."

# Without linux32 the build would take the kernel's word for the processor.
scripts/commit-in-clean-root.sh 'linux32 ./scripts/test.sh' i386
