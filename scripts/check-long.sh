#!/bin/sh
# The checks that take too long for every change: what check.sh leaves out, and more of what it has.
# Installs what is missing.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  clang clang-tidy git libbenchmark-dev libsdbus-c++-dev

step() { printf '\n== %s: %s\n' "$(date +%T)" "$1"; }

step "clang-tidy over the tests"
cmake --preset clang -DTEVROL_BENCHMARKS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
git ls-files -- 'tests/*.cpp' | xargs -P 2 -n 2 clang-tidy --quiet -p build/clang

step "release: shared and optimised, payloads converted byte by byte"
cmake --preset release -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
cmake --build --preset release
ctest --preset release -LE once

step "valgrind over the unit tests"
scripts/valgrind.sh unit

step "fuzzing"
scripts/fuzz.sh 300

step "the channel under load"
scripts/soak.sh 300

step "packages"
scripts/check-packages.sh

step "other processors"
scripts/check-32bit.sh
scripts/check-arm64.sh
