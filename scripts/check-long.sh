#!/bin/sh
# The checks that take too long for every change: what check.sh leaves out, and more of what it has.
# Installs what is missing.
set -eu
cd "$(dirname "$0")/.."

. scripts/checks.sh

step "clang-tidy over the tests"
git ls-files -- 'tests/*.cpp' | tidy

for preset in release bulk; do
  step "$preset: all tests, shared and optimised"
  cmake --preset $preset -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
  cmake --build --preset $preset
  ctest --preset $preset -LE once
done

step "valgrind over the unit tests"
scripts/valgrind.sh unit

step "fuzzing"
scripts/fuzz.sh 300

step "the channel under load"
scripts/soak.sh 300

step "packages"
scripts/check-packages.sh

step "other processors"
status=0
scripts/check-32bit.sh || status=1
scripts/check-arm64.sh || status=1
exit $status
