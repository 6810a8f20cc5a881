#!/bin/sh
# The checks that take too long for every change: ThreadSanitizer, valgrind, fuzzing, the model, a
# soak, the instructions of a request, clang-tidy over the tests. Installs what is missing.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  clang clang-tidy git libbenchmark-dev libsdbus-c++-dev

step() { printf '\n== %s\n' "$1"; }

step "clang-tidy over the tests"
cmake --preset clang -DTEVROL_BENCHMARKS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
git ls-files -- 'tests/*.cpp' | xargs -P 2 -n 2 clang-tidy --quiet -p build/clang

step "instructions of a request"
scripts/check-instructions.sh

step "ThreadSanitizer"
cmake --preset tsan
cmake --build --preset tsan
ctest --preset tsan -LE once -E "AFlood|FailEveryCall"

step "every suppression is needed"
scripts/check-suppressions.sh

step "valgrind"
scripts/valgrind.sh

step "fuzzing, briefly"
scripts/fuzz.sh 20

step "the handshake in every order of events"
scripts/check-model.sh

step "the channel under load"
scripts/soak.sh 20
