#!/bin/sh
# Shows that the two commands need nothing but a fresh Debian: makes one (debootstrap), clones the
# committed state into it and runs both there. As root; about 1 GB in a temporary folder.
set -eu
cd "$(dirname "$0")/.."
. scripts/root.sh

make_root "$(dpkg --print-architecture)"
chroot "$root" /bin/bash -c 'cd /project && time ./scripts/demo.sh && time ./scripts/test.sh'
