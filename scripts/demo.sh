#!/bin/sh
# Runs the demo: installs what is missing, builds, and shows two processes that find each other on a
# private bus and talk. Arguments go to the demo (--verbose shows the channel's own log).
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build
quietly build demo || { echo "the build failed" >&2; exit 1; }
build/demo/examples/tevrol-demo "$@"
