# shellcheck shell=sh
# What check.sh and check-long.sh share. Sourced by both, from the project's folder.

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  clang clang-format clang-tidy git libbenchmark-dev libclang-rt-dev libsdbus-c++-dev llvm \
  shellcheck

step() { printf '\n== %s: %s\n' "$(date +%T)" "$1"; }

# Reads the names of sources. clang-tidy cannot use precompiled headers.
tidy() {
  cmake --preset clang -DTEVROL_BENCHMARKS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
  xargs -P 2 -n 2 clang-tidy --quiet -p build/clang
}
