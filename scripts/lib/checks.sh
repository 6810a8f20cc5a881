# shellcheck shell=sh
# What check.sh and check-long.sh share. Sourced by both.

install_packages @build @tests @bench @clang @style

# Reads the names of sources, and leaves out what is not compiled here. clang-tidy cannot use precompiled
# headers, and would look at a source once for each target that compiles it.
tidy() {
  cmake --preset clang -DTEVROL_BENCHMARKS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
  mkdir -p build/clang/each-source-once
  python3 - build/clang/compile_commands.json >build/clang/each-source-once/compile_commands.json <<END
import json, sys
commands = {command["file"]: command for command in reversed(json.load(open(sys.argv[1])))}
json.dump(list(commands.values()), sys.stdout)
END
  while read -r source; do
    if grep -qF "\"$PWD/$source\"" build/clang/each-source-once/compile_commands.json; then
      echo "$source"
    else
      echo "not compiled here: $source" >&2
    fi
  done | xargs -P 2 -n 1 clang-tidy --quiet -p build/clang/each-source-once
}
