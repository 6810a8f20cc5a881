#!/bin/sh
# Runs the unit tests under valgrind's memcheck, each in a process of its own: invalid accesses,
# uses of undefined values, and definite leaks. Installs what is missing. An argument is a pattern
# of GoogleTest for the tests to run; without one all do.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev valgrind
cmake --preset dev >/dev/null
cmake --build --preset dev --target unit-tests

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# run_one TEST: under memcheck, with GLib's own suppressions (they come with its headers) and ours.
cat >"$folder/run_one" <<'END'
report=$(valgrind --quiet --error-exitcode=99 --leak-check=full \
  --show-leak-kinds=definite --errors-for-leak-kinds=definite --child-silent-after-fork=yes \
  --suppressions=/usr/share/glib-2.0/valgrind/glib.supp \
  --suppressions=tests/sanitizers/valgrind.supp \
  build/dev/tests/unit-tests --gtest_filter="$1" 2>&1) && exit 0
printf '== %s\n%s\n' "$1" "$report"
exit 1
END

build/dev/tests/unit-tests --gtest_list_tests --gtest_filter="${1:-*}" |
  awk '/^[^ ].*\./ { suite = $1 } /^  / { print suite $1 }' >"$folder/tests"
echo "valgrind: $(wc -l <"$folder/tests") tests"
xargs -a "$folder/tests" -P 2 -n 1 sh "$folder/run_one"
echo "valgrind: no errors"
