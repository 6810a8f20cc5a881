#!/bin/sh
# What clean-root.sh library runs in its own Debian: builds and installs the libraries with the oldest
# tools that they need, and an application against each.
set -eu
cd "$(dirname "$0")/../.."
. scripts/lib/command.sh

install_packages cmake g++ libglib2.0-dev libsystemd-dev make pkg-config
quietly cmake -S . -B build/library -DTEVROL_DEVELOPMENT=OFF -DCMAKE_INSTALL_LIBDIR=lib
quietly cmake --build build/library
quietly cmake --install build/library --prefix "$PWD/build/prefix"
export PKG_CONFIG_PATH="$PWD/build/prefix/lib/pkgconfig"
for program in minimal:tevrol-dbus-remote product-service:tevrol-channel; do
  # shellcheck disable=SC2046 # words on purpose
  quietly g++ -std=c++17 "examples/${program%:*}.cpp" $(pkg-config --cflags --libs "${program#*:}") \
    -o "build/${program%:*}"
done
echo "the libraries build by $(cmake --version | head -n 1) and $(g++ --version | head -n 1)"
