#!/bin/sh
# Prints the line and branch coverage of src/ and fails unless every line and every branch is
# taken, but for those branches that only a failed allocation reaches: scripts/coverage.py lists
# them. Installs what is missing.
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev gcovr

cmake --preset coverage >/dev/null
cmake --build --preset coverage --target conformance-tests log-stand-in-tests
find build/coverage -name '*.gcda' -delete
build/coverage/tests/conformance/conformance-tests --gtest_brief=1
ctest --preset coverage --quiet -R '^LogStandIn'

# The channel and the lock are compiled without the paths of exceptions there
# (tests/conformance/CMakeLists.txt); of the stand-in, gcovr leaves them out.
measure() {
  gcovr --root . --filter src/ --exclude-throw-branches \
    build/coverage/tests/conformance build/coverage/tests/CMakeFiles/log-stand-in-tests.dir "$@"
}
measure
measure --branches
measure --json | python3 scripts/coverage.py
