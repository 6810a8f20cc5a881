#!/bin/sh
# Runs the tests FILTER of build/dev/tests/PROGRAM, all in one process, under valgrind's memcheck,
# with GLib's own suppressions, which come with its headers. Prints how many have passed, or
# valgrind's report.
#
# Usage: memcheck.sh PROGRAM FILTER
set -eu
cd "$(dirname "$0")/../.."

if report=$(valgrind --quiet --error-exitcode=99 --leak-check=full \
  --show-leak-kinds=definite --errors-for-leak-kinds=definite --child-silent-after-fork=yes \
  --suppressions=/usr/share/glib-2.0/valgrind/glib.supp \
  "build/dev/tests/$1" --gtest_filter="$2" 2>&1); then
  printf '%s\n' "$report" | sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p'
else
  printf '== %s\n%s\n' "$2" "$report" >&2
  exit 1
fi
