#!/bin/sh
# Shows that the two commands need nothing but a fresh Debian: runs both in one. As root.
set -eu
cd "$(dirname "$0")/.."

scripts/commit-in-clean-root.sh 'time ./scripts/demo.sh && time ./scripts/test.sh'
