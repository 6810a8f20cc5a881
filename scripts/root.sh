# shellcheck shell=sh
# To be sourced, as root: a fresh Debian of its own to build and test in, so that nothing of this
# machine changes. It is in $root, a temporary folder that goes when the script ends, and holds the
# committed state in /project.

# make_root ARCHITECTURE
make_root() {
  scripts/install-packages.sh debootstrap git
  root=$(mktemp -d)
  trap remove_root EXIT
  mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' |
    head -n 1)
  debootstrap --variant=minbase --arch="$1" bookworm "$root" "$mirror" >/dev/null
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  # The ways to the mirror are this machine's.
  if [ -d /etc/apt/apt.conf.d ]; then cp -r /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"; fi
  mount -t proc proc "$root/proc"
  mount --bind /dev "$root/dev"
  git clone --quiet . "$root/project"
}

remove_root() {
  umount "$root/proc" "$root/dev" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
