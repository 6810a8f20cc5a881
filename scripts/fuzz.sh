#!/bin/sh
# Fuzzes for SECONDS (30 where not given), all targets at once, starting from the corpus in
# tests/fuzz/corpus, and prints the executions and the coverage of the channel's source. What is
# found is kept in build/fuzz. Installs what is missing.
#
#   scripts/fuzz.sh [SECONDS]
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build @tests @clang
build fuzz

build=build/fuzz
targets="conversion events handshake messages"
seconds=${1:-30}
# GLib's slices would hide from AddressSanitizer what is read after it was freed.
export G_SLICE=always-malloc

running=""
stop() {
  for run in $running; do kill "${run#*:}" 2>/dev/null || true; done
}
at_exit stop
for target in $targets; do
  mkdir -p "$build/corpus/$target"
  LLVM_PROFILE_FILE="$build/$target.profraw" "$build/tests/fuzz/$target-fuzz" \
    -max_total_time="$seconds" -max_len=256 -print_final_stats=1 \
    -artifact_prefix="$build/$target-" \
    "$build/corpus/$target" "tests/fuzz/corpus/$target" >"$build/$target.log" 2>&1 &
  running="$running $target:$!"
done
failed=false
for run in $running; do
  target=${run%:*}
  if wait "${run#*:}"; then
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$target.log")
    figure "$target: $executions executions"
  else
    tail -n 60 "$build/$target.log" >&2
    echo "$target: a finding, kept as $build/$target-*" >&2
    failed=true
  fi
done
if $failed; then exit 1; fi

llvm-profdata merge -o "$build/fuzz.profdata" "$build"/*.profraw
report=$(llvm-cov report -instr-profile "$build/fuzz.profdata" "$build/tests/fuzz/events-fuzz" \
  -object "$build/tests/fuzz/conversion-fuzz" -object "$build/tests/fuzz/messages-fuzz" \
  src/ipc src/common src/tevrol)
echo "$report"
figure "$(echo "$report" | awk '/^TOTAL/ { print $10 " of lines, " $13 " of branches" }')"
