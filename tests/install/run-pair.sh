#!/bin/sh
# Has APPLICATION (built from examples/minimal.cpp) and tevrol-partner talk on a private bus: a
# request and a notification each way. Succeeds when both have heard it all. The programs are those
# in PATH.
set -eu
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkfifo "$folder/commands"

# What the partner prints leads on to the next step. The partner is there first: two ends that
# start at the same moment can miss each other.
# shellcheck disable=SC2016 # for the inner shell
timeout 60 tevrol-private-bus sh -c '
  application=$1
  folder=$2
  exec 3<>"$folder/commands"
  tevrol-partner demo <&3 | {
    while read -r line; do
      echo "partner: $line"
      case $line in
        "announced SYN") "$application" >"$folder/heard" & ;;
        "notification from "*"\"hello\"") echo "request stressed" >&3 ;;
        "reply: 8 bytes \"desserts\"")
          echo "notify the light is on" >&3
          echo "request level" >&3 ;;
        "reply: 5 bytes \"level\"") echo quit >&3 ;;
      esac
    done
    kill $!
  }' sh "$1" "$folder"

sed 's/^/application: /' "$folder/heard"
grep -q '^notified: the light is on$' "$folder/heard"
