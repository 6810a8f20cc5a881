#!/bin/sh
# Proves each suppression of tests/sanitizers needed: without it, the test that proofs.txt there names
# is reported; with it, the test passes. Needs the builds of the presets asan and tsan.
cd "$(dirname "$0")/../.." || exit
. scripts/lib/command.sh

list=tests/sanitizers
make_temporary_folder
fewer=$folder/fewer.supp
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
  grep -Fxv "$3" "$list/$2" >"$fewer"
  if ! run "$1" "$PWD/$list/$2" "$4" >/dev/null 2>&1; then
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

while read -r preset file entry test; do
  case $preset in '#'*) ;; *) prove "$preset" "$file" "$entry" "$test" ;; esac
done <$list/proofs.txt

entries=$(cat $list/*.supp | grep -c '^[a-z]')
figure "$proven of $entries suppressions needed"
[ "$proven" -eq "$entries" ]
