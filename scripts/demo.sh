#!/bin/sh
# Runs the demo: installs what is missing, builds, and shows two processes that find each other on a
# private bus and talk. Arguments go to the demo (--verbose shows the channel's own log).
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt)

log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset demo && cmake --build --preset demo; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "the build failed" >&2
  exit 1
fi
build/demo/examples/tevrol-demo "$@"
