#!/bin/sh
# Runs a check in a fresh Debian, which is made for it and removed afterwards: nothing of this machine
# changes, and nothing of it is needed. Over the committed state; as root.
#
#   scripts/clean-root.sh [--release RELEASE] [CHECK]
#
# RELEASE is bookworm (the default), trixie or sid. The checks:
#
#   without one   demo and tests, which bring what they need
#   packages      the Debian packages: lintian finds nothing, two builds give the same bytes, they
#                 install by themselves, an application builds against them, is packaged and outlives
#                 an upgrade, they leave, and those for arm64 lie beside them
#   library       the libraries alone, with what an old Debian has: bullseye
#   i386          the whole suite on a 32-bit processor, which a PC runs by itself
#   arm64         the whole suite cross-built for arm64 and run by qemu-user, on a native dbus-daemon
#   s390x         unit and conformance tests on a big-endian processor, in the same way
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

release=bookworm
if [ "${1-}" = --release ]; then
  [ $# -ge 2 ] || wrong_usage
  release=$2
  shift 2
fi

# in_clone COMMAND [ARCHITECTURE]
in_clone() {
  install_packages git
  git clone --quiet . "$folder/clone"
  scripts/lib/in-clean-root.sh "$folder/clone" "$1" "${2-}" "$release"
}

make_temporary_folder
case ${1-} in
  "") in_clone 'time ./scripts/demo.sh && time ./scripts/test.sh' ;;
  packages) in_clone "scripts/lib/check-packages.sh $release" ;;
  library) in_clone scripts/lib/check-library.sh ;;
  # Without linux32 the build would take the kernel's word for the processor.
  i386) in_clone 'linux32 ./scripts/test.sh' i386 ;;
  arm64) in_clone 'scripts/lib/test-foreign.sh arm64' ;;
  s390x) in_clone 'scripts/lib/test-foreign.sh s390x unit' ;;
  *) wrong_usage ;;
esac
