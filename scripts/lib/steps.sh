# shellcheck shell=sh
# The steps of a run, and the table of their figures in build/ci/figures.md: a row for each step, with
# its time and what it has measured. The table is printed when the run ends, however it ends. Sourced
# after command.sh; a run that another one calls adds its steps to the other's table.

step_name=""
run_started=$(date +%s)
outermost=false
if [ -z "${TEVROL_FIGURES-}" ]; then
  outermost=true
  mkdir -p build/ci
  export TEVROL_FIGURES="$PWD/build/ci/figures.md"
  printf '| Step | Outcome | Seconds | Figures |\n|---|---|---|---|\n' >"$TEVROL_FIGURES"
fi

# step NAME: ends the step before and begins another.
step() {
  end_step passed
  step_name=$1
  step_started=$(date +%s)
  : >"$TEVROL_FIGURES.step"
  printf '\n== %s: %s\n' "$(date +%T)" "$step_name"
}

# end_step OUTCOME
end_step() {
  [ -n "$step_name" ] || return 0
  printf '| %s | %s | %s | %s |\n' "$step_name" "$1" $(($(date +%s) - step_started)) \
    "$(paste -sd ';' "$TEVROL_FIGURES.step" | sed 's/;/; /g')" >>"$TEVROL_FIGURES"
  rm -f "$TEVROL_FIGURES.step"
  step_name=""
}

end_run() {
  run_status=$?
  if [ "$run_status" -eq 0 ]; then end_step passed; else end_step FAILED; fi
  if $outermost; then
    printf '\n'
    cat "$TEVROL_FIGURES"
    if [ "$run_status" -eq 0 ]; then run_outcome="all passed"; else run_outcome=FAILED; fi
    echo "$run_outcome after $((($(date +%s) - run_started) / 60)) minutes"
  fi
  exit "$run_status"
}
at_exit end_run
