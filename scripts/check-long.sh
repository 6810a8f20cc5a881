#!/bin/sh
# The checks that take too long for every change: what check.sh leaves out, and more of what it has.
# Installs what is missing.
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh
. scripts/lib/steps.sh
. scripts/lib/checks.sh

export CI="${CI:-true}"

step "clang-tidy over programs, benchmarks and tests"
git ls-files -- 'programs/*.cpp' 'bench/*.cpp' 'tests/*.cpp' | tidy

for preset in release bulk; do
  step "$preset: all tests, shared and optimised"
  build $preset
  run_tests --preset $preset -LE once
done

step "both ends started together"
build dev channel-starts
build/dev/tests/channel/channel-starts 200

step "channels destroyed under load, 2000 of them"
build dev channel-tests
build/dev/tests/channel/channel-tests --gtest_brief=1 --gtest_filter='*Closing.AtAnyMomentUnderLoad*' \
  --gtest_repeat=10

step "the example on Qt's loop"
install_packages qtbase5-dev
build dev channel-tests tevrol-example-display-on-qt
run_tests --preset dev -R ExampleProduct

step "valgrind over conformance and unit tests"
scripts/valgrind.sh

step "the tests notice every change of the other sources"
scripts/mutate.sh --all-but channel

step "fuzzing"
scripts/fuzz.sh 300

step "the channel under load"
scripts/soak.sh 300

step "nothing breaks what was built against the last release"
scripts/lib/check-abi.sh

step "without glibc"
scripts/lib/check-musl.sh

# All of them, whatever comes of the first.
failed=""
for check in "packages" "i386" "arm64" "s390x" "--release bullseye library" "--release trixie" \
  "--release trixie packages" "--release sid"; do
  step "a fresh Debian: $check"
  # shellcheck disable=SC2086 # words on purpose
  scripts/clean-root.sh $check || { end_step FAILED; failed="$failed, $check"; }
done
[ -z "$failed" ] || { echo "failed: ${failed#, }" >&2; exit 1; }
