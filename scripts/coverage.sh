#!/bin/sh
# Prints the coverage of src/ and fails unless all is taken but what is listed: of TevrolDbusRemote every
# line and every branch (tests/conformance/not-covered.txt), of tevrol::Channel every line
# (tests/channel/not-covered.txt). Installs what is missing.
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build @tests gcovr
quietly build coverage conformance-tests log-stand-in-tests channel-tests channel-failure-tests \
  handshake-tests messages-fuzz handshake-fuzz
find build/coverage -name '*.gcda' -delete
build/coverage/tests/conformance/conformance-tests --gtest_brief=1
ctest --preset coverage --quiet -R '^(LogStandIn|HandshakeTest|Fuzz[.](messages|handshake))'
ctest --preset coverage --quiet -L channel -E 'ChannelStarts|ChannelSoak' -j 8

# The channel and the lock are compiled without the paths of exceptions there
# (tests/conformance/CMakeLists.txt); of the stand-in, gcovr leaves them out.
measure() {
  gcovr --root . --filter 'src/(common|ipc|platform)' --exclude-throw-branches \
    build/coverage/tests/conformance build/coverage/tests/library/CMakeFiles/log-stand-in-tests.dir "$@"
}
measure
measure --branches
figure "$(measure --print-summary --output build/coverage/report.txt | sed -n 's/^\(lines\|branches\): /\1 /p' | paste -sd ,)"
measure --json | python3 scripts/lib/coverage.py tests/conformance/not-covered.txt

measure_channel() { gcovr --root . --filter src/tevrol build/coverage "$@"; }
measure_channel
figure "$(measure_channel --print-summary --output build/coverage/report.txt | sed -n 's/^lines: /tevrol::Channel: lines /p')"
measure_channel --json | python3 scripts/lib/coverage.py tests/channel/not-covered.txt --lines
