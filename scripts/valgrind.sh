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

# run PROGRAM FILTER: under memcheck, with GLib's own suppressions (they come with its headers) and
# ours.
cat >"$folder/run" <<'END'
report=$(valgrind --quiet --error-exitcode=99 --leak-check=full \
  --show-leak-kinds=definite --errors-for-leak-kinds=definite --child-silent-after-fork=yes \
  --suppressions=/usr/share/glib-2.0/valgrind/glib.supp \
  --suppressions=tests/sanitizers/valgrind.supp \
  "build/dev/tests/$1" --gtest_filter="$2" 2>&1)
result=$?
if [ $result -ne 0 ]; then printf '== %s\n%s\n' "$2" "$report"; exit 1; fi
printf '%s\n' "$report" | sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' >>"$3"
END

xargs -a "$folder/runs" -P 2 -I{} sh -c 'set -f; sh "$0" {} "$1"' "$folder/run" "$folder/passed"
echo "valgrind: $(awk '{ tests += $1 } END { print tests }' "$folder/passed") tests, no errors"
