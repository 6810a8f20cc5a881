#!/bin/sh
# The whole suite on a 32-bit processor: i386, which a 64-bit PC runs by itself. In a Debian of its
# own (scripts/root.sh), so that no foreign package comes to this machine. As root; about 1 GB in a
# temporary folder. Arguments go to ctest.
set -eu
cd "$(dirname "$0")/.."
. scripts/root.sh

make_root i386
# Without linux32 the build would take the kernel's word for the processor.
chroot "$root" linux32 /bin/bash -c 'cd /project && exec ./scripts/test.sh "$@"' test.sh "$@"
