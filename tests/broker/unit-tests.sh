#!/bin/sh
# Runs the unit tests on private buses that dbus-broker serves, each test in a process of its own, and
# prints those that fail. Skipped (77) where dbus-broker is not installed.
#
# Usage: unit-tests.sh UNIT_TESTS FOLDER_OF_THE_STAND_IN_FOR_DBUS_DAEMON
set -eu

if ! command -v dbus-broker >/dev/null; then
  echo "skipped: dbus-broker is not installed"
  exit 77
fi
unit_tests=$1
PATH=$2:$PATH
export PATH

# These quote an error in dbus-daemon's own words.
elsewhere="Broadcast.InvalidNameLogsErrorAndMissingReply
PartnerLoss.SendingFromItsHandlerSendsNothing
Request.LossOfPartnerFailsRunningRequest"

tests=$("$unit_tests" --gtest_list_tests |
  awk '/^[^ ].*\./ { suite = $1 } /^  / { print suite $1 }' | grep -Fxv "$elsewhere")
# shellcheck disable=SC2016 # for the inner shell
failed=$(printf '%s\n' "$tests" | xargs -P 4 -I '{}' \
  sh -c '"$0" --gtest_filter="$1" >/dev/null 2>&1 || echo "failed: $1"' "$unit_tests" '{}')
printf '%s tests on dbus-broker\n' "$(printf '%s\n' "$tests" | wc -l)"
if [ -n "$failed" ]; then
  printf '%s\n' "$failed"
  exit 1
fi
