# shellcheck shell=sh
# What every command begins with. Sourced from the project's folder.
set -eu

# The comment at the top of the command.
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/${0##*/}"; }
wrong_usage() { usage >&2; exit 2; }
case ${1-} in -h | --help) usage; exit ;; esac

install_packages() { scripts/lib/install-packages.sh "$@"; }

# at_exit COMMAND: runs it when the script ends, by a signal too. A shell that a signal ends does not
# run what is to be done at its exit.
at_exit() {
  # shellcheck disable=SC2064 # the command is known now
  trap "$1" EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

# A folder for temporary files, which goes with the script.
remove_temporary_folder() { rm -rf "$folder"; }
make_temporary_folder() {
  folder=$(mktemp -d)
  at_exit remove_temporary_folder
}

# Shows what a command prints only when it fails.
quietly() {
  quiet_output=$(mktemp)
  quiet_status=0
  "$@" >"$quiet_output" 2>&1 || quiet_status=$?
  [ "$quiet_status" -eq 0 ] || cat "$quiet_output" >&2
  rm -f "$quiet_output"
  return "$quiet_status"
}

# build PRESET [TARGET...]
build() {
  build_preset=$1
  shift
  cmake --preset "$build_preset" -DCMAKE_COMPILE_WARNING_AS_ERROR="${CI:-OFF}" >/dev/null
  if [ $# -gt 0 ]; then set -- --target "$@"; fi
  cmake --build --preset "$build_preset" "$@"
}

# Says what a command has measured. It goes into the table of a run (steps.sh), where there is one.
figure() {
  echo "$1"
  if [ -n "${TEVROL_FIGURES-}" ]; then echo "$1" >>"$TEVROL_FIGURES.step"; fi
}

# ctest, whose closing count is a figure. Where up to three tests fail, they are run once more, by
# themselves: on a busy machine a process may come too late for a test. The figures name them. What a
# sanitizer reports, and a crash, is no matter of time and stays a failure.
run_tests() {
  tests_status=0
  mkdir -p build/ci
  ctest --output-log build/ci/ctest.log "$@" || tests_status=$?
  figure "$(awk '
    / tests? failed out of [0-9]+$/ { all = $NF; failed = $4 }
    /\(Skipped\)$/ { skipped++ }
    END { printf "%d of %d tests passed", all - failed - skipped, all
          if (skipped) printf ", %d skipped", skipped }' build/ci/ctest.log)"
  failed_tests=$(sed '1,/^The following tests FAILED:$/d' build/ci/ctest.log |
    sed -n 's/^[[:blank:]]*[0-9]* - \([^ ]*\).*/\1/p')
  failed_count=$(printf '%s' "$failed_tests" | grep -c .) || true
  if [ "$tests_status" -ne 0 ] && [ "$failed_count" -ge 1 ] && [ "$failed_count" -le 3 ] &&
    ! grep -Eq 'SUMMARY: .*Sanitizer|runtime error: |\((SEGFAULT|Subprocess aborted|ILLEGAL|BUS_ERROR|NUMERICAL)\)' \
      build/ci/ctest.log; then
    tests_status=0
    ctest "$@" --rerun-failed --parallel 1 || tests_status=$?
    figure "run again by themselves: $(printf '%s' "$failed_tests" | paste -sd ' ')"
  fi
  return "$tests_status"
}
