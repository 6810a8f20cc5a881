#!/bin/sh
# Changes the sources of the channel and its lock in every way that matters and shows which test
# notices each change. Installs what is missing.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev python3

cmake --preset dev >/dev/null
cmake --build --preset dev --target conformance-tests unit-tests
python3 scripts/mutate.py
