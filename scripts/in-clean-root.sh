#!/bin/sh
# Runs a command in a fresh Debian, made for it by debootstrap and removed afterwards: where nothing
# is installed yet, and the folder FOLDER is at hand as /project, the current one. As root; about
# 1 GB in a temporary folder.
#
# Usage: in-clean-root.sh FOLDER COMMAND [ARCHITECTURE]
set -eu
folder=$1 command=$2 architecture=${3:-$(dpkg --print-architecture)}

"$(dirname "$0")/install-packages.sh" debootstrap
root=$(mktemp -d)
chmod 755 "$root"  # it will be everybody's /
cleanup() {
  umount "$root/proc" "$root/dev/pts" "$root/dev" "$root" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT
mount --bind "$root" "$root"  # a mount point, so that tests can have a view of their own of it

# shellcheck disable=SC2016 # apt's own variable
mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' |
  head -n 1)
debootstrap --variant=minbase --arch="$architecture" bookworm "$root" "$mirror" >/dev/null
cp /etc/resolv.conf "$root/etc/resolv.conf"
# The ways to the mirror are this machine's.
if [ -d /etc/apt/apt.conf.d ]; then cp -r /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"; fi
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
if mountpoint -q /dev/pts; then mount --bind /dev/pts "$root/dev/pts"; fi
cp -r "$folder" "$root/project"

chroot "$root" /bin/bash -c "cd /project && $command"
