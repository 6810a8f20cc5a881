#!/bin/sh
# Runs a command in a fresh Debian (in-clean-root.sh) over a clone of the committed state. As root.
#
# Usage: commit-in-clean-root.sh COMMAND [ARCHITECTURE]
set -eu
cd "$(dirname "$0")/.."

scripts/install-packages.sh git
clone=$(mktemp -d)
trap 'rm -rf "$clone"' EXIT
git clone --quiet . "$clone"

scripts/in-clean-root.sh "$clone" "$@"
