#!/bin/bash
# Checks the handshake in every order of events: each statement about tests/model/handshake.pml is
# either proven, by a search through all states, or refuted, with the shortest run that shows it.
# Then breaks the model here and there and sees that what was proven is refuted.
#
# Installs SPIN, unless called with --if-installed: then it skips (77) where there is none.
# --show STATEMENT prints the run that refutes the statement.
set -euo pipefail
cd "$(dirname "$0")/.."
model=$PWD/tests/model/handshake.pml

if [ "${1-}" = --if-installed ]; then
  command -v spin gcc >/dev/null || { echo "skipped: SPIN (package spin) is not installed"; exit 77; }
else
  scripts/install-packages.sh spin gcc libc6-dev
fi

# Outcome; how it is searched for; statement; what the model is told. Starts, refusals and so on are
# upper limits: every smaller number is covered.
#   state: breadth first where it is refuted, so the run is the shortest; else depth first
#   cycle: a run that never ends
#   fair:  a run that goes on for ever without it, though nothing that can happen waits for ever
statements() {
  sed 's/ *#.*//; /^$/d' <<'END'
proven  state never-ready-with-nobody-bound   -DALWAYS=nobody_bound_not_ready -DSTARTS=3 -DREFUSALS=2 -DSTRANGER=ACK
proven  state never-paired-with-itself        -DALWAYS=never_its_own_partner -DSTARTS=3 -DREFUSALS=2 -DSTRANGER=SYN
proven  state ready-with-the-living-or-told   -DALWAYS=ready_with_the_living -DSTARTS=3 -DREFUSALS=2 -DSTRANGER=ACK
proven  state ready-only-if-bound-there       -DALWAYS=ready_only_if_bound_there -DSTARTS=3 -DREFUSALS=2
proven  cycle every-run-ends                  -DSTARTS=3 -DREFUSALS=2 -DSTRANGER=ACK
proven  state partner-second                  -DOUTCOME=both_ready -DSTARTS=3 -DREFUSALS=2 -DSYN_SPARED=PARTNER -DLAST_START=this_end_idle
proven  state partner-first                   -DOUTCOME=both_ready -DREFUSALS=2 -DSYN_SPARED=CLIENT -DCLIENT_STARTS=partner_waits
refuted state simultaneous-start              -DOUTCOME=both_ready -DIN_ORDER
refuted state first-syn-refused               -DOUTCOME=both_ready -DREFUSALS=1 -DCLIENT_STARTS=partner_waits -DIN_ORDER
refuted state partners-syn-refused            -DOUTCOME=both_ready -DREFUSALS=1 -DPARTNER_STARTS=this_end_idle -DIN_ORDER
refuted fair  name-held-for-ever              -DHELD -DPARTNER_STARTS=this_end_idle -DIN_ORDER
refuted state syn-of-the-dead                 -DALWAYS=bound_to_the_living -DPARTNER_STARTS=this_end_waits -DSTARTS=2 -DIN_ORDER
refuted state restart-before-the-loss         -DOUTCOME=both_ready -DSTARTS=2 -DPARTNER_STARTS=this_end_waits -DIN_ORDER
refuted state partner-ready-alone             -DOUTCOME=partner_not_ready_alone -DSTARTS=2 -DPARTNER_STARTS=this_end_waits -DIN_ORDER
refuted state told-of-another                 -DALWAYS=told_of_the_bound -DSTRANGER=ACK -DPARTNER_STARTS=this_end_waits -DIN_ORDER
refuted state refused-as-the-thread-ends              -DOUTCOME=both_ready -DSTARTS=2 -DREFUSALS=2 -DSYN_SPARED=PARTNER -DPARTNER_STARTS=this_end_idle -DLAST_START=this_end_unbound -DIN_ORDER
refuted state second-partner-not-found        -DOUTCOME=second_found -DPARTNER_STARTS=this_end_idle -DSECOND_STARTS=this_end_ready -DPARTNER_LEAVES -DIN_ORDER
refuted state two-partners-paired             -DALWAYS=one_partner_at_a_time -DPARTNER_STARTS=this_end_idle -DSECOND_STARTS=this_end_waits -DIN_ORDER
refuted state strangers-ack                   -DALWAYS=ready_only_if_bound_there -DSTRANGER=ACK -DPARTNER_STARTS=this_end_waits -DIN_ORDER
refuted state holder-taken-for-this-end       -DALWAYS=ready_only_if_bound_there -DSTRANGER=SYN_ACK -DPARTNER_STARTS=this_end_waits -DIN_ORDER
refuted state ready-taken-back                -DALWAYS=ready_until_lost -DSTRANGER=ACK -DREFUSALS=1 -DPARTNER_STARTS=this_end_waits -DIN_ORDER
END
}

# A change to the model, as a sed command; the statement that it refutes.
breakages() {
  cat <<'END'
a bound end binds again            s/:: at\[i\].bound == NOBODY ->$/:: true ->/ ready-only-if-bound-there
an unbound end takes an ACK        s/:: at\[i\].bound != NOBODY -> complete/:: true -> complete/ never-ready-with-nobody-bound
an end takes its own SYN           s/:: what == SYN && who != at\[i\].name/:: what == SYN/ never-paired-with-itself
a loss leaves the state as it was  /at\[i\].bound = NOBODY;$/{n;s/at\[i\].state = NONE$/skip/} never-ready-with-nobody-bound
a failed announcement is forgotten s/at\[i\].thread = RUNNING/skip/ partner-second
a dead partner is not reported     s/at\[i\].absent = true/skip/ partner-second
the bus reports no loss            s/report(k, GONE, at\[i\].name)/skip/ ready-with-the-living-or-told
a lost partner's entry is kept     s/:: else -> at\[i\].owed = NONE$/:: else/ every-run-ends
END
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# search HOW OUTCOME MODEL DEFINITIONS...: leaves what the search printed in `report`, and a trail
# where it found something.
search() {
  local how=$1 outcome=$2 searched=$3 build run
  shift 3
  case "$how-$outcome" in
    state-proven) build="-O1 -DSAFETY" run="-m1000000" ;;
    state-refuted) build="-DSAFETY -DBFS" run="" ;;
    cycle-*) build="-O1 -DNP" run="-l -m1000000" ;;
    fair-*) build="" run="-a -f -m1000000" ;;
  esac
  rm -f ./*.trail
  cp "$searched" model.pml
  spin -a "$@" model.pml >report
  # shellcheck disable=SC2086 # words on purpose
  gcc -w $build -o pan pan.c
  # shellcheck disable=SC2086 # words on purpose
  ./pan -n $run >report
}

# found HOW: proven, where all states were searched and nothing was wrong; refuted, where a run shows
# the very thing that was searched for: not a full inbox, say, which is an assertion of its own, or
# an end that is stuck.
found() {
  local sought
  case "$1" in
    state) sought="assertion violated 0" ;;
    cycle) sought="non-progress cycle" ;;
    fair) sought="acceptance cycle" ;;
  esac
  if grep -q "^pan:1: $sought (at depth" report; then
    echo refuted
  elif grep -q 'errors: 0$' report && ! grep -qi 'not completed\|too small\|max search' report; then
    echo proven
  else
    echo unknown
  fi
}

states() { sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' report | tail -n 1; }

definitions() { statements | awk -v name="$1" '$3 == name { $1 = $2 = $3 = ""; print }'; }
method() { statements | awk -v name="$1" '$3 == name { print $2 }'; }

if [ "${1-}" = --show ]; then
  # shellcheck disable=SC2046 # words on purpose
  search "$(method "$2")" refuted "$model" $(definitions "$2")
  [ "$(found "$(method "$2")")" = refuted ] || { echo "$2: no run refutes it" >&2; exit 1; }
  # shellcheck disable=SC2046 # words on purpose
  spin -t -T $(definitions "$2") model.pml | grep -E '^[0-9] [^p]|START OF CYCLE'
  exit
fi

failures=0
judge() {  # expected, found, text
  printf '%-8s %s\n' "$2" "$3"
  if [ "$1" != "$2" ]; then
    echo "         EXPECTED: $1"
    failures=$((failures + 1))
  fi
}

while read -r outcome how name given; do
  # shellcheck disable=SC2086 # words on purpose
  search "$how" "$outcome" "$model" $given
  judge "$outcome" "$(found "$how")" "$(printf '%-31s %8s states' "$name" "$(states)")"
done < <(statements)

while read -r line; do
  name=${line##* }
  change=${line% *}
  what=${change%% s/*}
  what=${what%% /at*}
  sed -e "${change#"$what"}" "$model" >broken.pml
  if cmp -s "$model" broken.pml; then
    echo "changes nothing: $line" >&2
    exit 1
  fi
  how=$(method "$name")
  # shellcheck disable=SC2046 # words on purpose
  search "$how" refuted broken.pml $(definitions "$name")
  judge refuted "$(found "$how")" "$name, when ${what%"${what##*[![:space:]]}"}"
done < <(breakages)

[ "$failures" -eq 0 ] || { echo "$failures not as expected" >&2; exit 1; }
