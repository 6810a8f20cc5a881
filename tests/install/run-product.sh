#!/bin/sh
# Has product-client and product-service of FOLDER (built from examples/) talk on a private bus.
# Succeeds when the client has shown an answer and a change. tevrol-private-bus is the one in PATH.
set -eu
# The client ends by the first line that nobody reads. So the service tells of changes until then.
# shellcheck disable=SC2016 # for the inner shell
timeout 60 tevrol-private-bus sh -c '
  "$1/product-service" >/dev/null & service=$!
  "$1/product-client" | {
    answered=false
    while read -r line; do
      echo "client: $line"
      case $line in
        "it is "*) answered=true ;;
        "now "*) if $answered; then exit 0; fi ;;
      esac
    done
    exit 1
  }
  status=$?
  kill $service
  exit $status' sh "$1"
