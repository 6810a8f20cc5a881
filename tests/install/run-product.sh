#!/bin/sh
# Has product-client and product-service of FOLDER (built from examples/) talk on a private bus.
# Succeeds when the client has shown an answer and a change. tevrol-private-bus is the one in PATH.
set -eu
# shellcheck disable=SC2016 # for the inner shell
timeout 60 tevrol-private-bus sh -c '
  "$1/product-service" >/dev/null & service=$!
  "$1/product-client" | while read -r line; do
    echo "client: $line"
    case $line in
      "now "*) kill $service; exit 0 ;;
    esac
  done' sh "$1"
