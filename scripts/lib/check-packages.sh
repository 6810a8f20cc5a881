#!/bin/sh
# What clean-root.sh packages runs in its own Debian RELEASE. Foreign -dev packages may push out native
# ones, so run it nowhere else.
#
# Usage: check-packages.sh RELEASE
set -eu
cd "$(dirname "$0")/../.."
. scripts/lib/command.sh
release=$1
project=$PWD
native=$(dpkg --print-architecture)
make_temporary_folder

# build_in FOLDER [OPTION...]: the packages of a copy of the source there.
build_in() {
  mkdir -p "$1"
  cp -r "$project" "$1/source"
  (cd "$1/source" && shift && quietly dpkg-buildpackage --build=binary --no-sign "$@")
}

install_packages build-essential debhelper file lintian
quietly env DEBIAN_FRONTEND=noninteractive apt-get build-dep -y --no-install-recommends ./

echo "the packages of two folders are the same"
build_in "$folder/one"
build_in "$folder/another/folder"
for package in "$folder"/one/*.deb; do
  cmp "$package" "$folder/another/folder/${package##*/}"
done

echo "lintian finds nothing"
quietly lintian --allow-root --fail-on error,warning "$folder"/one/*.changes

# ---- Installed, used, upgraded and removed, where nothing else is ----
mkdir -p "$folder/use/packages" "$folder/use/next"
cp "$folder"/one/*.deb "$folder/use/packages"
rm -f "$folder"/use/packages/*-dbgsym_*
# The same packages as a later version, whose dependencies on each other are those that its build
# would give them.
for package in "$folder"/use/packages/*.deb; do
  unpacked=$folder/unpacked
  rm -rf "$unpacked"
  dpkg-deb -R "$package" "$unpacked"
  version=$(dpkg-deb -f "$package" Version)
  sed -i "s/^Version: .*/&+next/; s/(= $version)/(= $version+next)/g" "$unpacked/DEBIAN/control"
  quietly dpkg-deb --root-owner-group -b "$unpacked" "$folder/use/next"
done
cp -r tests/install/. examples scripts/lib/install-packages.sh "$folder/use"
scripts/lib/in-clean-root.sh "$folder/use" ./use-packages.sh "$native" "$release"

# ---- For another processor ----
echo "cross-built for arm64"
dpkg --add-architecture arm64
quietly apt-get update
install_packages crossbuild-essential-arm64 libstdc++6:arm64
quietly env DEBIAN_FRONTEND=noninteractive apt-get build-dep -y --no-install-recommends \
  --host-architecture arm64 ./
build_in "$folder/foreign" --host-arch arm64
for package in "$folder"/foreign/lib*_arm64.deb; do
  dpkg-deb -x "$package" "$folder/foreign/unpacked"
done
find "$folder/foreign/unpacked/usr/lib" -type f -name '*.so.*' | grep . | while read -r library; do
  case $library in
    */aarch64-linux-gnu/*) file "$library" | grep -q 'ARM aarch64' ;;
    *) false ;;
  esac || { echo "$library is not where and what it should be" >&2; exit 1; }
done
quietly dpkg --unpack "$folder"/one/lib*_"$native".deb
quietly dpkg --unpack "$folder"/foreign/lib*_arm64.deb
[ "$(dpkg-query -W -f '${Architecture}\n' libtevrol-channel-dev:"$native" libtevrol-channel-dev:arm64 |
  wc -l)" -eq 2 ] || { echo "not both are there" >&2; exit 1; }
echo "the packages of $release are fit for use"
