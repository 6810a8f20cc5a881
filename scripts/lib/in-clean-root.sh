#!/bin/sh
# Runs a command in a fresh Debian RELEASE (bookworm), made for it by debootstrap and removed afterwards: where nothing
# is installed yet, and a copy of the folder FOLDER is at hand as /project, the current one. As root;
# about 1 GB in a temporary folder.
#
# The Debian has mounts and processes of its own. They go with the first of these processes, so that
# nothing is left behind whatever ends this script.
#
# Usage: in-clean-root.sh FOLDER COMMAND [ARCHITECTURE [RELEASE]]
set -eu

if [ "$1" = --inside ]; then
  root=$2 folder=$3 command=$4 architecture=$5 release=$6
  mount --bind "$root" "$root"  # a mount point, so that tests can have a view of their own of it

  # shellcheck disable=SC2016 # apt's own variable
  mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Label: Debian' | head -n 1)
  debootstrap --variant=minbase --arch="$architecture" "$release" "$root" "$mirror" >/dev/null
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  # The ways to the mirror are this machine's.
  if [ -d /etc/apt/apt.conf.d ]; then cp -r /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"; fi
  mount -t proc proc "$root/proc"
  mount --bind /dev "$root/dev"
  if mountpoint -q /dev/pts; then mount --bind /dev/pts "$root/dev/pts"; fi
  cp -r "$folder" "$root/project"
  chroot "$root" /bin/bash -c "cd /project && $command"
  exit
fi

cd "$(dirname "$0")/../.."
. scripts/lib/command.sh

folder=$(realpath "$1") command=$2 architecture=${3:-$(dpkg --print-architecture)}
release=${4:-bookworm}
install_packages debootstrap
root=$(mktemp -d)
chmod 755 "$root"  # it will be everybody's /
inside=""
cleanup() {
  # unshare ends when the first process inside has ended, and that one after all the others.
  if [ -n "$inside" ]; then
    { read -r first <"/proc/$inside/task/$inside/children"; } 2>/dev/null || true
    kill -KILL "${first:-$inside}" 2>/dev/null || true
    wait "$inside" 2>/dev/null || true
  fi
  rm -rf --one-file-system "$root"
}
at_exit cleanup
# In the background: a shell acts on a signal when its child in the foreground has ended, but a wait
# ends at once.
unshare --mount --mount-proc --pid --fork --kill-child \
  "$PWD/scripts/lib/in-clean-root.sh" --inside "$root" "$folder" "$command" "$architecture" "$release" &
inside=$!
wait "$inside"
inside=""
