#!/bin/sh
# Runs the tests of PROGRAM, shared among COUNT processes at once: they wait most of the time.
#
# Usage: at-once.sh COUNT PROGRAM
set -eu
export GTEST_TOTAL_SHARDS="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

processes=""
GTEST_SHARD_INDEX=0
while [ "$GTEST_SHARD_INDEX" -lt "$GTEST_TOTAL_SHARDS" ]; do
  export GTEST_SHARD_INDEX
  "$2" >"$work/$GTEST_SHARD_INDEX" 2>&1 & processes="$processes $!"
  GTEST_SHARD_INDEX=$((GTEST_SHARD_INDEX + 1))
done
failed=0
for process in $processes; do
  wait "$process" || failed=$((failed + 1))
done
cat "$work"/*
[ "$failed" -eq 0 ] || { echo "$failed of $GTEST_TOTAL_SHARDS processes failed" >&2; exit 1; }
