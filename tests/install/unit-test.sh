#!/bin/sh
# Checks the example's systemd unit, and that the user and the group it names come into being, as
# far as that goes without a running systemd.
#
# Usage: unit-test.sh SOURCE_FOLDER
set -eu
packaging=$1/packaging

for program in systemd-analyze systemd-sysusers; do
  command -v $program >/dev/null || { echo "skipped: needs $program"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "failed: $1" >&2; exit 1; }
value() { sed -n "s/^$1=//p" "$packaging/systemd/tevrol-example.service"; }

# ---- The unit: understood without a complaint, and exposed as little as can be ----
unit=$work/tevrol-example.service
sed 's,^ExecStart=.*,ExecStart=/bin/true,' "$packaging/systemd/tevrol-example.service" >"$unit"
systemd-analyze verify --man=no "$unit" >"$work/complaints" 2>&1 ||
  { cat "$work/complaints" >&2; fail "verify"; }
[ ! -s "$work/complaints" ] || { cat "$work/complaints" >&2; fail "verify complains"; }
# What is left open: the bus is a local socket, the group is what the bus policy admits, the root
# folder is the host's; the rest opens nothing to a user without privileges.
cat >"$work/expected" <<'END'
DeviceAllow=
PrivateMounts=
RestrictAddressFamilies=~AF_UNIX
RootDirectory=/RootImage=
SupplementaryGroups=
END
systemd-analyze security --no-pager --offline=true --json=short "$unit" | tr '{' '\n' |
  sed -n 's/^"set":false,"name":"\([^"]*\)".*/\1/p' | LC_ALL=C sort >"$work/open"
diff "$work/expected" "$work/open" >&2 || fail "something else is left open"
systemd-analyze security --no-pager --offline=true "$unit" >"$work/exposure"

# ---- Its life: after the bus, and again whenever it ends ----
has() { [ "$(value "$1")" = "$2" ] || fail "$1 is $(value "$1") instead of $2"; }
has After dbus.socket
has Requires dbus.socket
has Type exec
# The end of the bus ends it by SIGTERM, which counts as success.
has Restart always
has RestartSec 1
has StartLimitIntervalSec 0
# The channel's debug lines do not push out the application's own.
has LogLevelMax info
has WantedBy multi-user.target
# A refused call is an error that it can log, not its end.
has SystemCallErrorNumber EPERM
case $(value ExecStart) in
  /*) ;;
  *) fail "ExecStart needs a whole path" ;;
esac

# ---- Its user, and the group that the bus policy names ----
mkdir "$work/etc"
create() {
  systemd-sysusers --root="$work" "$packaging/sysusers.d/$1" >"$work/output" 2>&1 ||
    { cat "$work/output" >&2; fail "systemd-sysusers"; }
}
# The group is there without the example, too.
create tevrol.conf
grep -q "^$(value SupplementaryGroups):" "$work/etc/group" ||
  fail "no group $(value SupplementaryGroups)"
create tevrol-example.conf
user=$(grep "^$(value User):" "$work/etc/passwd") || fail "no user $(value User)"
case $user in
  */nologin) ;;
  *) fail "its user may log in: $user" ;;
esac
# Old buses read the members there.
grep -Eq "^$(value SupplementaryGroups):.*[:,]$(value User)(,|\$)" "$work/etc/group" ||
  fail "$(value User) is no member of $(value SupplementaryGroups) in the database"
grep -q "<policy group=\"$(value SupplementaryGroups)\">" \
  "$packaging/dbus/org.ulmar.Tevrol.conf" || fail "the bus policy names another group"
tail -n 1 "$work/exposure"
