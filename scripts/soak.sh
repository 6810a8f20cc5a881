#!/bin/sh
# Runs each of the two classes under load for SECONDS (20), with a SEED that it prints: a partner process
# that is killed and restarted at random, refused announcements, requests and notifications both ways;
# tevrol::Channel from many threads, with a standby and with a bus that ends and comes back, too.
#
#   scripts/soak.sh [SECONDS [SEED]]
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

install_packages @build @tests
build dev tevrol-soak channel-soak
# So that what is in use can be counted: no caches of freed memory, neither GLib's nor the
# allocator's of each thread.
export G_SLICE=always-malloc GLIBC_TUNABLES=glibc.malloc.tcache_count=0
make_temporary_folder
# The report as it comes, and its outcome behind the pipe.
for program in tevrol-soak channel-soak; do
  { build/dev/tests/soak/$program "${1:-20}" ${2+"$2"} || : >"$folder/failed"; } | tee "$folder/report"
  figure "$(sed -n '/ messages/p; /^seed /p' "$folder/report" | paste -sd ,)"
done
[ ! -e "$folder/failed" ]
