#!/bin/sh
# docs.sh --pictures: draws the pictures in docs/images.
cd "$(dirname "$0")/../.." || exit
. scripts/lib/command.sh

install_packages @build
quietly build demo tevrol-example-minimal tevrol-partner tevrol-private-bus tevrolctl
export PATH="$PWD/build/demo/examples:$PWD/build/demo/programs:$PATH"

make_temporary_folder
mkfifo "$folder/input"

# draw PICTURE FIRST LAST [COMMAND...]: a monitor and the two ends on a bus of their own, FIRST being
# the end that starts first, until the partner, which gets the commands when it is ready, has printed
# LAST. Then the partner leaves.
draw() {
  # shellcheck disable=SC2016 # for the inner shell
  timeout 60 tevrol-private-bus sh -eu -c '
    folder=$1 picture=$2 first=$3 last=$4
    shift 4
    await() { until grep -qs "$2" "$folder/$1"; do sleep 0.02; done; }
    application() { minimal >"$folder/application" & application=$!; }
    partner() { tevrol-partner demo <&3 >"$folder/partner" & partner=$!; }

    : >"$folder/application" >"$folder/partner" >"$folder/monitor"
    exec 3<>"$folder/input"
    tevrolctl monitor demo --diagram "$picture" >"$folder/monitor" 2>&1 &
    monitor=$!
    await monitor monitoring
    if [ "$first" = partner ]; then
      partner
      await partner "announced SYN"
      application
    else
      application
      await monitor "announces CLIENT_SYN"
      partner
    fi
    await partner "hello"
    for command; do echo "$command" >&3; done
    await partner "$last"
    echo quit >&3
    wait $partner
    await application lost
    await monitor leaves
    kill $application $monitor
    wait $monitor' sh "$folder" "$@"
}

draw docs/images/sequence-a.svg partner hello
draw docs/images/sequence-b.svg application hello
draw docs/images/monitor.svg application notified \
  "request stressed" "request hex:00ff80" "notify the light is on"
