#!/bin/sh
# Fuzzes for SECONDS (60 where not given), each target for half of them, starting from the corpus in
# tests/fuzz/corpus, and prints the executions and the coverage of the channel's source. What is
# found is kept in build/fuzz. Installs what is missing.
#
#   scripts/fuzz.sh [SECONDS]
set -eu
cd "$(dirname "$0")/.."

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  clang libclang-rt-dev llvm
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

build=build/fuzz
targets="conversion events"
# GLib's slices would hide from AddressSanitizer what is read after it was freed.
export G_SLICE=always-malloc
for target in $targets; do
  mkdir -p "$build/corpus/$target"
  log="$build/$target.log"
  if ! LLVM_PROFILE_FILE="$build/$target.profraw" "$build/tests/fuzz/$target-fuzz" \
      -max_total_time=$((${1:-60} / 2)) -max_len=256 -print_final_stats=1 \
      -artifact_prefix="$build/$target-" \
      "$build/corpus/$target" "tests/fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "$target: a finding, kept as $build/$target-*" >&2
    exit 1
  fi
  echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions"
done

llvm-profdata merge -o "$build/fuzz.profdata" "$build"/*.profraw
llvm-cov report -instr-profile "$build/fuzz.profdata" "$build/tests/fuzz/events-fuzz" \
  -object "$build/tests/fuzz/conversion-fuzz" src/ipc src/common
