#!/bin/sh
# Each source names its licence in its first line, and all who name it mean the same.
#
# Usage: licence-test.sh SOURCE_FOLDER
set -eu
source=$1
fail() { echo "failed: $1" >&2; exit 1; }
cd "$source"

[ "$(head -n 3 LICENSE)" = "MIT License

Copyright (c) 2026 the tevrol-dbus-remote authors" ] || fail "another licence in LICENSE"
# Debian's file has the same text, each line after a blank.
permission() { sed -n '/Permission is hereby/,$p' "$1" | sed "$2"; }
[ "$(permission debian/copyright 's/^ \.$//; s/^ //')" = "$(permission LICENSE '')" ] ||
  fail "debian/copyright has another text"

# shellcheck disable=SC2016 # for the inner shell
unnamed=$(find bench cmake devkit examples programs src tests -type f \
  \( -name '*.cpp' -o -name '*.h' -o -name '*.h.in' \) -exec sh -c '
    for file; do
      read -r first <"$file"
      [ "$first" = "// SPDX-License-Identifier: MIT" ] || echo "$file"
    done' sh {} +)
[ -z "$unnamed" ] || fail "no licence in the first line of $unnamed"
echo "every source names the licence"
