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
# In tenths, of the 10 that a unit without any protection is given.
systemd-analyze security --no-pager --offline=true --threshold=5 "$unit" >"$work/exposure" ||
  { cat "$work/exposure" >&2; fail "exposed too much"; }

# ---- Its user, and the group that the bus policy names ----
mkdir "$work/etc"
systemd-sysusers --root="$work" "$packaging/sysusers.d/tevrol.conf" \
  "$packaging/sysusers.d/tevrol-example.conf" >"$work/output" 2>&1 ||
  { cat "$work/output" >&2; fail "systemd-sysusers"; }
grep -q "^$(value User):" "$work/etc/passwd" || fail "no user $(value User)"
grep -q "^$(value SupplementaryGroups):" "$work/etc/group" ||
  fail "no group $(value SupplementaryGroups)"
grep -q "<policy group=\"$(value SupplementaryGroups)\">" \
  "$packaging/dbus/org.ulmar.Tevrol.conf" || fail "the bus policy names another group"
tail -n 1 "$work/exposure"
