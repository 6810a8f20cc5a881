#!/bin/sh
# In a fresh Debian, in a folder that scripts/lib/check-packages.sh has filled: installs the packages in
# packages/, builds the example applications against them, packages one, upgrades to those in next/,
# and removes all.
set -eu
export DEBIAN_FRONTEND=noninteractive
fail() { echo "failed: $1" >&2; exit 1; }
quietly() { "$@" >output 2>&1 || { cat output >&2; fail "$*"; }; }

quietly apt-get update
# By themselves, before anything that they might forget to ask for.
quietly apt-get install -y --no-install-recommends ./packages/*.deb
getent group tevrol >output || fail "no group"
[ -f /usr/share/dbus-1/system.d/org.ulmar.Tevrol.conf ] || fail "no bus policy"
# What is in the package: a small system may leave pages out when it installs.
dpkg-deb -c packages/tevrol-tools_*.deb >contents
sed -n 's,.* \./usr/bin/\(..*\),\1,p' contents | while read -r program; do
  grep -q "/man1/$program.1.gz\$" contents || fail "no manual page of $program"
done

# ---- Applications ----
./install-packages.sh g++ cmake make dpkg-dev pkg-config
quietly cmake -S consumer -B by-cmake -DEXAMPLES="$PWD/examples"
quietly cmake --build by-cmake
# shellcheck disable=SC2046 # words on purpose
quietly g++ -std=c++17 examples/minimal.cpp $(pkg-config --cflags --libs tevrol-dbus-remote) -o minimal
quietly ./run-pair.sh by-cmake/application
quietly ./run-pair.sh ./minimal
quietly ./run-product.sh by-cmake

# ---- One of them as a package, which an upgrade leaves alone ----
mkdir -p application/debian application/root/usr/bin application/root/DEBIAN
cp minimal application/root/usr/bin/tevrol-minimal
printf 'Source: application\n\nPackage: application\nArchitecture: any\n' >application/debian/control
(cd application && dpkg-shlibdeps -O root/usr/bin/tevrol-minimal) >depends 2>output ||
  { cat output >&2; fail "dpkg-shlibdeps"; }
cat >application/root/DEBIAN/control <<END_OF_CONTROL
Package: application
Version: 1
Architecture: $(dpkg --print-architecture)
Maintainer: nobody <nobody@example.org>
Depends: $(sed -n 's/^shlibs:Depends=//p' depends)
Description: an application
END_OF_CONTROL
quietly dpkg-deb -b application/root application.deb
quietly apt-get install -y ./application.deb
quietly apt-get install -y ./next/*.deb
for package in application tevrol-tools libtevrol-channel-dev; do
  dpkg-query -W -f '${db:Status-Status}' "$package" | grep -qx installed ||
    fail "the upgrade has removed $package"
done
dpkg-query -W -f '${Version}' libtevrol-dbus-remote1 | grep -q '+next$' || fail "no upgrade"
quietly ./run-pair.sh tevrol-minimal

# ---- Away again ----
quietly apt-get purge -y application 'libtevrol-*' 'tevrol-*'
if find / -xdev \( -path /proc -o -path /project -o -path /var \) -prune -o \
  -name '*tevrol*' -print | grep .; then
  fail "left behind"
fi
echo "the packages install, serve, outlive an upgrade and leave"
