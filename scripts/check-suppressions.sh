#!/bin/sh
# Proves each suppression of tests/sanitizers needed: without it, a test that passes with it is
# reported. Needs the builds of the presets asan and tsan.
set -eu
cd "$(dirname "$0")/.."

folder=tests/sanitizers
fewer=$(mktemp)
trap 'rm -f "$fewer"' EXIT
proven=0

# run PRESET SUPPRESSIONS TEST: with the options of the test presets, but other suppressions.
run() {
  env G_SLICE=always-malloc LSAN_OPTIONS="suppressions=$2:print_suppressions=0" \
    TSAN_OPTIONS="ignore_noninstrumented_modules=1:suppressions=$2" \
    ctest --test-dir "build/$1" --output-on-failure --no-tests=error -R "^$3\$"
}

# is_reported PRESET TEST: a race shows itself when the threads meet, so not in every run.
is_reported() {
  for _ in 1 2 3 4 5; do
    if run "$1" "$fewer" "$2" 2>&1 | grep -q 'SUMMARY: .*Sanitizer'; then return 0; fi
  done
  return 1
}

# prove PRESET FILE ENTRY TEST
prove() {
  grep -Fxv "$3" "$folder/$2" >"$fewer"
  if ! run "$1" "$PWD/$folder/$2" "$4" >/dev/null 2>&1; then
    echo "$4 fails even with $3" >&2
    exit 1
  fi
  if ! is_reported "$1" "$4"; then
    echo "$4 is not reported without $3" >&2
    exit 1
  fi
  echo "needed: $3"
  echo "  for $4"
  proven=$((proven + 1))
}

prove asan lsan.supp leak:g_dbus_message_new_from_blob \
  PartnerLibrary.EchoesRequestsUnlessItIsGivenAnAnswer
prove tsan tsan.supp race:TevrolDbusRemote::IsConnectionReady \
  Resend.EntryWithoutAThreadWaitsForTheThreadOfALaterFailure
prove tsan tsan.supp race:TevrolDbusRemote::~TevrolDbusRemote \
  BindingStage.RefusedAnswerIsOwedAndStartsOneThreadWhileStateAndBindingStay/cb_SynNameOwnerChanged
prove tsan tsan.supp thread:TevrolDbusRemote::Stage::RequestResend \
  PartnerLibrary.HoldsAClientNameSoThatTheAnnouncementFailsUntilItIsReleased

entries=$(cat "$folder"/*.supp | grep -c '^[a-z]')
echo "$proven of $entries suppressions proven"
[ "$proven" -eq "$entries" ]
