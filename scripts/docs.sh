#!/bin/sh
# Makes the API reference from the headers' comments, in build/docs/html. Installs what is missing;
# a warning is an error.
set -eu
cd "$(dirname "$0")/.."

scripts/install-packages.sh doxygen
mkdir -p build/docs
doxygen docs/Doxyfile
echo "build/docs/html/index.html"
