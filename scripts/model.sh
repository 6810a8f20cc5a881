#!/bin/bash
# Checks the handshake in every order of events: each statement that tests/model/MODEL.txt makes about
# MODEL.pml is either proven, by a search through all states, or refuted, with the shortest run that
# shows it. Then breaks the model here and there and sees that what was proven is refuted.
#
#   scripts/model.sh                     all models
#   scripts/model.sh --show STATEMENT    prints the run that refutes the statement
#   scripts/model.sh --if-installed      skips (77) where SPIN is missing, instead of installing it
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh
set -o pipefail

if [ "${1-}" = --if-installed ]; then
  command -v spin gcc >/dev/null || { echo "skipped: SPIN (package spin) is not installed"; exit 77; }
else
  install_packages spin gcc libc6-dev
fi

models=$PWD/tests/model
make_temporary_folder
project=$PWD
cd "$folder"

# search HOW OUTCOME MODEL DEFINITIONS...: leaves what the search printed in `report`, and a trail
# where it found something.
search() {
  local how=$1 outcome=$2 searched=$3 build run
  shift 3
  case "$how-$outcome" in
    state-proven) build="-DSAFETY" run="-m1000000" ;;
    state-refuted) build="-DSAFETY -DBFS" run="" ;;
    cycle-*) build="-DNP" run="-l -m1000000" ;;
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


# statements LIST, breakages LIST: without comments and empty lines
statements() { grep -E '^(proven|refuted) ' "$1"; }
breakages() { sed -n 's/^broken //p' "$1"; }
definitions() { statements "$1" | awk -v name="$2" '$3 == name { $1 = $2 = $3 = ""; print }'; }
method() { statements "$1" | awk -v name="$2" '$3 == name { print $2 }'; }

# show LIST STATEMENT
show() {
  local model=${1%.txt}.pml how
  how=$(method "$1" "$2")
  # shellcheck disable=SC2046 # words on purpose
  search "$how" refuted "$model" $(definitions "$1" "$2")
  [ "$(found "$how")" = refuted ] || { echo "$2: no run refutes it" >&2; return 1; }
  # shellcheck disable=SC2046 # words on purpose
  spin -t -T $(definitions "$1" "$2") model.pml | grep -E '^[0-9] [^p]|START OF CYCLE'
}

if [ "${1-}" = --show ]; then
  [ $# -eq 2 ] || wrong_usage
  list=$(grep -lE "^(proven|refuted) +[a-z]+ +$2 " "$models"/*.txt) ||
    { echo "no such statement: $2" >&2; exit 1; }
  show "$list" "$2"
  exit
fi

failures=0 checked=0 broken=0 searched=0
judge() {  # expected, found, text
  printf '%-8s %s\n' "$2" "$3"
  if [ "$1" != "$2" ]; then
    echo "         EXPECTED: $1"
    failures=$((failures + 1))
  fi
}

check() {  # LIST
  local list=$1 model=${1%.txt}.pml outcome how name given rest what
  while read -r outcome how name given; do
    # shellcheck disable=SC2086 # words on purpose
    search "$how" "$outcome" "$model" $given
    judge "$outcome" "$(found "$how")" "$(printf '%-31s %8s states' "$name" "$(states)")"
    checked=$((checked + 1))
    searched=$((searched + $(printf %.0f "$(states)")))
  done < <(statements "$list")

  while read -r line; do
    name=${line%% | *} rest=${line#* | }
    what=${rest%% | *}
    sed -e "${rest#* | }" "$model" >broken.pml
    if cmp -s "$model" broken.pml; then
      echo "changes nothing: $line" >&2
      exit 1
    fi
    how=$(method "$list" "$name")
    # shellcheck disable=SC2046 # words on purpose
    search "$how" refuted broken.pml $(definitions "$list" "$name")
    judge refuted "$(found "$how")" "$name, when $what"
    broken=$((broken + 1))
  done < <(breakages "$list")
}

for model in "$models"/*.pml; do
  list=${model%.pml}.txt
  echo "$(basename "$list" .txt):"
  check "$list"
done
cd "$project"
figure "model: $checked statements, $searched states, $broken breakages; $failures not as expected"
[ "$failures" -eq 0 ]
