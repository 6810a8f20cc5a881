#!/bin/sh
# Shows that the two commands need nothing but a fresh Debian: makes one (debootstrap), clones the
# committed state into it and runs both there. As root; about 1 GB in a temporary folder.
set -eu
cd "$(dirname "$0")/.."

scripts/install-packages.sh debootstrap git
root=$(mktemp -d)
cleanup() {
  umount "$root/proc" "$root/dev" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT

mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' |
  head -n 1)
debootstrap --variant=minbase bookworm "$root" "$mirror" >/dev/null
cp /etc/resolv.conf "$root/etc/resolv.conf"
# The ways to the mirror are this machine's.
if [ -d /etc/apt/apt.conf.d ]; then cp -r /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"; fi
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
git clone --quiet . "$root/project"

chroot "$root" /bin/bash -c 'cd /project && time ./scripts/demo.sh && time ./scripts/test.sh'
