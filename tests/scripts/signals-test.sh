#!/bin/sh
# A fresh Debian (scripts/lib/in-clean-root.sh) that is stopped by a signal leaves neither a process nor
# a mount nor a file behind. Runs as root; debootstrap's part is played by a few copied programs.
#
# Usage: signals-test.sh SOURCE_FOLDER
set -eu
source=$1

[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root"; exit 77; }
unshare --mount --pid --fork true 2>/dev/null || { echo "skipped: no namespaces here"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
fail() { echo "failed: $1" >&2; exit 1; }

# Stand-ins: a root with bash and sleep in it, and packages that are installed.
mkdir -p "$work/bin" "$work/project" "$work/temporary"
cat >"$work/bin/debootstrap" <<'END'
#!/bin/sh
set -eu
for root; do case $root in /*) break ;; esac; done
mkdir -p "$root/dev" "$root/proc" "$root/etc/apt/apt.conf.d" "$root/bin"
for program in bash sleep; do
  path=$(command -v $program)
  cp "$path" "$root/bin/"
  ldd "$path" | grep -o '/[^ ]*' | while read -r library; do
    mkdir -p "$root${library%/*}"
    cp "$library" "$root$library"
  done
done
END
printf '#!/bin/sh\necho installed\n' >"$work/bin/dpkg-query"
printf '#!/bin/sh\necho any\n' | tee "$work/bin/dpkg" >"$work/bin/apt-get"
chmod +x "$work/bin/"*
export PATH="$work/bin:$PATH" TMPDIR="$work/temporary"

# As long as no other process sleeps.
long=9876$$

# start COMMAND: the script in the background, heeding SIGINT as it does in a terminal.
start() {
  : >"$work/output"  # here, so that nothing of the script before is there by now
  env --default-signal=INT,QUIT "$source/scripts/lib/in-clean-root.sh" "$work/project" "$1" \
    >"$work/output" 2>&1 &
  script=$!
}

nothing_left() {
  left=$(ls -A "$work/temporary")
  [ -z "$left" ] || fail "$1: left in the temporary folder: $left"
  ! grep -F "$work" /proc/mounts || fail "$1: a mount is left"
  ! grep -aqs "sleep.$long" /proc/[0-9]*/cmdline || fail "$1: a process is left"
}

start 'echo hello from inside'
wait "$script" || { cat "$work/output" >&2; fail "an ordinary end"; }
grep -qx 'hello from inside' "$work/output" || fail "the command did not run"
nothing_left "an ordinary end"

start 'exit 3'
status=0
wait "$script" || status=$?
[ "$status" -eq 3 ] || fail "the command's exit status is lost: $status"
nothing_left "a failure"

for signal in HUP:129 INT:130 TERM:143; do
  start "echo running; exec sleep $long"
  until grep -q '^running$' "$work/output"; do
    kill -0 "$script" || { cat "$work/output" >&2; fail "it ended by itself"; }
  done
  kill -"${signal%:*}" "$script"
  status=0
  wait "$script" || status=$?
  [ "$status" -eq "${signal#*:}" ] || fail "$signal: exit status $status"
  nothing_left "$signal"
done
echo "nothing is left behind"
