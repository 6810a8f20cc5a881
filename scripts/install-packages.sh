#!/bin/sh
# Installs those of the named Debian packages that are missing, through sudo where not root.
# Touches nothing when all are there.
set -eu

missing=""
for package in "$@"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || status=""
  [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "installing:$missing"
as_root=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "needs root or sudo to install:$missing" >&2; exit 1; }
  as_root=sudo
fi
log=$(mktemp)
# shellcheck disable=SC2086 # words on purpose
if ! { $as_root apt-get update && $as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends $missing; } >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  echo "could not install:$missing" >&2
  exit 1
fi
rm -f "$log"
