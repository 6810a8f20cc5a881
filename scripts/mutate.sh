#!/bin/sh
# Changes the sources in every way that matters, one at a time, and shows which test notices each change.
# Installs what is missing. tests/mutants/README.md has the lists and their format.
#
#   scripts/mutate.sh [SUBJECT...]           a subject is a list in tests/mutants; without one, all
#   scripts/mutate.sh --all-but SUBJECT...
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build @tests @started-by-tests clang
python3 tests/mutants/mutate.py "$@"
