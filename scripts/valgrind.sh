#!/bin/sh
# Runs tests under valgrind's memcheck: invalid accesses, uses of undefined values, and definite
# leaks. Installs what is missing.
#
#   scripts/valgrind.sh [conformance] [unit]
#
# The conformance tests run in two processes, the unit tests in one each. Without an argument: both.
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

if [ $# -eq 0 ]; then set -- conformance unit; fi
install_packages @build @tests valgrind
make_temporary_folder

for part in "$@"; do
  case $part in
    conformance)
      build dev conformance-tests
      # Those in which every call fails sum up at the end, so they stay together.
      for tests in '*FailEveryCall*' '-*FailEveryCall*'; do
        echo "conformance/conformance-tests $tests" >>"$folder/runs"
      done
      ;;
    unit)
      build dev unit-tests
      build/dev/tests/remote/unit-tests --gtest_list_tests |
        awk '/^[^ ].*\./ { suite = $1 } /^  / { print "remote/unit-tests", suite $1 }' >>"$folder/runs"
      ;;
    *) wrong_usage ;;
  esac
done

xargs -a "$folder/runs" -P 2 -L 1 scripts/lib/memcheck.sh >"$folder/passed"
figure "$(awk '{ tests += $1 } END { print tests }' "$folder/passed") tests without errors"
