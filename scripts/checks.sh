# shellcheck shell=sh
# What check.sh and check-long.sh share. Sourced by both, from the project's folder.

# shellcheck disable=SC2046 # words on purpose
scripts/install-packages.sh $(cat scripts/build-packages.txt) libgmock-dev libgtest-dev \
  clang clang-format clang-tidy git libbenchmark-dev libclang-rt-dev libsdbus-c++-dev llvm \
  python3 shellcheck

step() { printf '\n== %s: %s\n' "$(date +%T)" "$1"; }

# Reads the names of sources. clang-tidy cannot use precompiled headers, and would look at a source
# once for each target that compiles it.
tidy() {
  cmake --preset clang -DTEVROL_BENCHMARKS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
  mkdir -p build/clang/each-source-once
  python3 - build/clang/compile_commands.json >build/clang/each-source-once/compile_commands.json <<END
import json, sys
commands = {command["file"]: command for command in reversed(json.load(open(sys.argv[1])))}
json.dump(list(commands.values()), sys.stdout)
END
  xargs -P 2 -n 1 clang-tidy --quiet -p build/clang/each-source-once
}
