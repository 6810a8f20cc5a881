#!/bin/sh
# Measures the channel beside GDBus, sd-bus, sdbus-c++ and a bare socket pair: installs what is
# missing, builds, measures, and prints goals and tables. Leaves figures.csv, report.md and the plots
# in build/bench/results.
#   --quick           fewer rounds and sizes: under a minute
#   --record          puts tables and plots into docs/
#   --instructions    counts the instructions of a request instead and compares them with those that
#                     are recorded; with --record it records them
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

extent=full
record=false
instructions=false
for option in "$@"; do
  case $option in
    --quick) extent=quick ;;
    --record) record=true ;;
    --instructions) instructions=true ;;
    *) wrong_usage ;;
  esac
done

if $instructions; then
  if $record; then set -- --record; else set --; fi
  exec scripts/lib/instructions.sh "$@"
fi

install_packages @build @bench gnuplot-nox python3

results=build/bench/results
rm -rf "$results"
mkdir -p "$results"
echo "building"
quietly build bench

echo "measuring ($extent)"
bench() { build/bench/bench/tevrol-bench "$@" >>"$results/figures.csv"; }

if [ $extent = quick ]; then
  scale_rounds="1 2 3 4"
  peak_sizes="1048576 4194304"
else
  scale_rounds=$(seq 15)
  peak_sizes="65536 1048576 4194304 16777216"
fi
for subject in requests notifications pairs pair-threads handshake threads log; do
  bench "$subject" "$extent"
done
for round in $scale_rounds; do
  for channels in 1 3 10 30 100; do bench scale "$channels" "$round"; done
done
for size in $peak_sizes; do
  for contender in channel bulk gdbus either direct; do bench peak "$contender" "$size"; done
done
for contender in channel bulk keeping either direct; do bench growth "$contender" 4096; done

python3 bench/report.py "$results" <"$results/figures.csv" >"$results/report.md"
(cd "$results" && gnuplot ../../../bench/plots.gp)
cat "$results/report.md"

if $record; then
  mkdir -p docs/images
  cp "$results"/*.svg docs/images/
  sed -i -e '/<!-- figures -->/,/<!-- end of figures -->/{/<!--/!d}' \
    -e "/<!-- figures -->/r $results/report.md" docs/performance.md
fi
