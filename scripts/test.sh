#!/bin/sh
# Runs all tests: installs what is missing, builds and calls ctest. Arguments go to ctest.
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build @tests @started-by-tests
build dev
run_tests --preset dev "$@"
