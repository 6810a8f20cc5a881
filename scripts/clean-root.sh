#!/bin/sh
# Shows that the two commands need nothing but a fresh Debian: clones the committed state into one
# and runs both there. As root.
set -eu
cd "$(dirname "$0")/.."

scripts/install-packages.sh git
clone=$(mktemp -d)
trap 'rm -rf "$clone"' EXIT
git clone --quiet . "$clone"

scripts/in-clean-root.sh "$clone" 'time ./scripts/demo.sh && time ./scripts/test.sh'
