#!/bin/sh
# Installs those of the named Debian packages that are missing, through sudo where not root.
# Touches nothing when all are there.
#
# Usage: install-packages.sh PACKAGE|@SET...
set -eu

packages() {
  case $1 in
    @build) echo cmake dbus-daemon g++ libglib2.0-dev libjson-glib-dev libsystemd-dev ninja-build \
      pkg-config ;;
    @tests) echo libgmock-dev libgtest-dev ;;
    @started-by-tests) echo dbus dbus-bin git make python3 python3-dbus python3-gi spin \
      systemd ;;
    @bench) echo libbenchmark-dev libsdbus-c++-dev ;;
    @clang) echo clang libclang-rt-dev llvm ;;
    @style) echo clang-format clang-tidy git python3 shellcheck ;;
    @*) echo "no such set of packages: $1" >&2; return 1 ;;
    *) echo "$1" ;;
  esac
}

missing=""
for argument in "$@"; do
  named=$(packages "$argument")
  for package in $named; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || status=""
    [ "$status" = installed ] || missing="$missing $package"
  done
done
[ -n "$missing" ] || exit 0

echo "installing:$missing"
as_root=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "needs root or sudo to install:$missing" >&2; exit 1; }
  as_root=sudo
fi
# shellcheck disable=SC2086 # words on purpose
if ! output=$({ $as_root apt-get update && $as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends $missing; } 2>&1); then
  printf '%s\n' "$output" >&2
  echo "could not install:$missing" >&2
  exit 1
fi
