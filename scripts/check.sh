#!/bin/sh
# What CI checks beyond the tests: formatting, shellcheck, clang-tidy, the shared build with the other
# payload conversion, sanitizers, mutants, coverage, instructions, fuzzing and a soak.
# scripts/check-long.sh has more of the same. Installs what is missing. What the steps have measured
# is in build/ci/figures.md and printed at the end.
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh
. scripts/lib/steps.sh
. scripts/lib/checks.sh

export CI="${CI:-true}"
sources() { git ls-files -- '*.cpp' '*.h'; }

step "clang-format"
sources | xargs clang-format --dry-run --Werror

step "shellcheck"
git ls-files -- '*.sh' .ci | xargs shellcheck -x

step "the library's sources compile on their own, with GIO's flags alone"
for compiler in g++ clang++; do
  for source in src/ipc/tevrol-dbus-remote.cpp src/common/PTMutex.cpp; do
    # shellcheck disable=SC2046 # words on purpose
    $compiler -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -Isrc \
      $(pkg-config --cflags gio-2.0) -fsyntax-only "$source"
  done
done

step "the API reference, without a warning"
scripts/docs.sh

step "clang-tidy, and with it clang++'s warnings"
# Qt's own headers are not clean.
git ls-files -- 'src/*.cpp' 'devkit/*.cpp' 'examples/*.cpp' ':!examples/display-on-qt.cpp' | tidy

step "the library: shared, optimised, payloads converted in one copy"
build bulk library-tests devkit-tests partner-program-tests
run_tests --preset bulk -L library

step "AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer"
build asan
run_tests --preset asan -LE once

step "ThreadSanitizer"
# Where threads are.
build tsan unit-tests library-tests devkit-tests partner-program-tests fault-tests time-jump-tests \
  channel-tests planted-race
run_tests --preset tsan -L 'unit|library|faults|channel' -LE once

step "every suppression is needed"
scripts/lib/suppressions.sh

step "the conformance tests notice every change of the channel"
scripts/mutate.sh channel

step "coverage of src"
scripts/coverage.sh

step "instructions of a request"
scripts/bench.sh --instructions

step "fuzzing, briefly"
scripts/fuzz.sh 10

step "the channel under load"
scripts/soak.sh 15
