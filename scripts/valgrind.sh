#!/bin/sh
# Runs tests under valgrind's memcheck: invalid accesses, uses of undefined values, and definite
# leaks. Installs what is missing.
#
#   scripts/valgrind.sh [conformance] [unit]
#
# The conformance tests run in one process, the unit tests in one each. Without an argument: both.
set -eu
cd "$(dirname "$0")/.."

if [ $# -eq 0 ]; then set -- conformance unit; fi

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev valgrind
cmake --preset dev >/dev/null

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

for part in "$@"; do
  case $part in
    conformance)
      cmake --build --preset dev --target conformance-tests
      echo "conformance/conformance-tests *" >>"$folder/runs"
      ;;
    unit)
      cmake --build --preset dev --target unit-tests
      build/dev/tests/unit-tests --gtest_list_tests |
        awk '/^[^ ].*\./ { suite = $1 } /^  / { print "unit-tests", suite $1 }' >>"$folder/runs"
      ;;
    *) sed -n '5p' "$0" >&2; exit 2 ;;
  esac
done

xargs -a "$folder/runs" -P 2 -L 1 scripts/memcheck.sh >"$folder/passed"
echo "valgrind: $(awk '{ tests += $1 } END { print tests }' "$folder/passed") tests, no errors"
