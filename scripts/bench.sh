#!/bin/sh
# Measures the channel beside GDBus, sd-bus, sdbus-c++ and a bare socket pair: installs what is
# missing, builds, measures, and prints goals and tables. Leaves figures.csv, report.md and the plots
# in build/bench/results.
#   --quick    fewer rounds and sizes: under a minute
#   --record   puts tables and plots into docs/
set -eu
cd "$(dirname "$0")/.."

extent=full
record=false
for option in "$@"; do
  case $option in
    --quick) extent=quick ;;
    --record) record=true ;;
    *) sed -n '2,6s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libbenchmark-dev libsdbus-c++-dev \
  gnuplot-nox python3

results=build/bench/results
rm -rf "$results"
mkdir -p "$results"
echo "building"
if ! { cmake --preset bench && cmake --build --preset bench; } >"$results/build.log" 2>&1; then
  cat "$results/build.log" >&2
  exit 1
fi

echo "measuring ($extent)"
bench() { build/bench/bench/tevrol-bench "$@" >>"$results/figures.csv"; }

if [ $extent = quick ]; then
  scale_rounds="1 2 3 4"
  peak_sizes="1048576 4194304"
else
  scale_rounds=$(seq 15)
  peak_sizes="65536 1048576 4194304 16777216"
fi
for subject in requests notifications handshake threads log; do
  bench "$subject" "$extent"
done
for round in $scale_rounds; do
  for channels in 1 3 10 30 100; do bench scale "$channels" "$round"; done
done
for size in $peak_sizes; do
  for contender in channel bulk gdbus; do bench peak "$contender" "$size"; done
done
for contender in channel bulk keeping; do bench growth "$contender" 4096; done

python3 bench/report.py "$results" <"$results/figures.csv" >"$results/report.md"
(cd "$results" && gnuplot ../../../bench/plots.gp)
cat "$results/report.md"

if $record; then
  mkdir -p docs/images
  cp "$results"/*.svg docs/images/
  sed -i -e '/<!-- figures -->/,/<!-- end of figures -->/{/<!--/!d}' \
    -e "/<!-- figures -->/r $results/report.md" docs/performance.md
fi
