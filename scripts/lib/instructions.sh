#!/bin/sh
# bench.sh --instructions: counts by callgrind the instructions that the channel itself spends on a
# request, its conversions and its calls into GLib included, the bus excluded, and compares them with
# bench/instructions.txt: fails where one has grown by more than 3 %. The count does not depend on how
# busy the machine is, but on compiler and libraries: under another toolchain than the recorded one
# nothing is compared, and the script says so. Then record anew, as after a change that costs or saves
# something: --record.
cd "$(dirname "$0")/../.." || exit
. scripts/lib/command.sh

install_packages @build @bench valgrind
quietly build bench tevrol-bench-instructions

record=bench/instructions.txt
toolchain="g++ $(g++ -dumpfullversion), GLib $(pkg-config --modversion glib-2.0),\
 glibc $(getconf GNU_LIBC_VERSION | cut -d' ' -f2), $(valgrind --version), $(uname -m)"

# Instructions of one request of 16 bytes in the build $1: the least of three counts, because where
# other threads have left the heap in pieces, the allocator searches longer.
count() {
  requests=200
  for _ in 1 2 3; do
    LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file=build/bench/callgrind.out \
      --toggle-collect='*::SendMessage(*' build/bench/bench/tevrol-bench-instructions \
      "$1" 16 $requests 2>&1 | awk -v n=$requests '/Collected/ { printf "%d\n", $4 / n }'
  done | sort -n | head -n 1
}

counted=$(for build in channel bulk; do echo "$build 16 $(count $build)"; done)

if [ "${1:-}" = --record ]; then
  {
    echo "# Instructions of one request: build, bytes, instructions."
    echo "# Written by scripts/bench.sh --instructions --record."
    echo "# toolchain: $toolchain"
    echo "$counted"
  } >$record
  cat $record
  exit
fi

if ! grep -qxF "# toolchain: $toolchain" $record; then
  figure "not compared: recorded with another toolchain than this ($toolchain)"
  echo "$counted"
  exit
fi
make_temporary_folder
comparison=$folder/comparison
compared=true
echo "$counted" | awk '
  NR == FNR { if (!/^#/) recorded[$1 " " $2] = $3; next }
  {
    was = recorded[$1 " " $2]
    if (!was || !$3) { print $1, $2 ": nothing to compare"; failed = 1; next }
    change = 100 * ($3 / was - 1)
    printf "%s %d B: %d instructions, recorded %d: %+.2f %%\n", $1, $2, $3, was, change
    if (change > 3) failed = 1
  }
  END { exit failed }
' $record - >"$comparison" || compared=false
while read -r line; do figure "$line"; done <"$comparison"
$compared || { echo "a request costs over 3 % more than recorded" >&2; exit 1; }
