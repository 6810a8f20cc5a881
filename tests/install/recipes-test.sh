#!/bin/sh
# Checks the recipes in packaging/ against what is really installed, as far as that goes without
# the systems that they are for.
#
# Usage: recipes-test.sh SOURCE_FOLDER
set -eu
source=$1
yocto=$source/packaging/yocto/tevrol-dbus-remote_1.0.0.bb
buildroot=$source/packaging/buildroot

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
command -v make >/dev/null || { echo "skipped: needs make"; exit 77; }
fail() { echo "failed: $1" >&2; exit 1; }
same() { [ "$2" = "$3" ] || fail "$1: \"$2\" instead of \"$3\""; }

version=$(sed -n 's/^project(tevrol-dbus-remote VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
group=$(sed -n 's/.*<policy group="\(.*\)">.*/\1/p' "$source/packaging/dbus/org.ulmar.Tevrol.conf")

# Configured as a recipe says, installed as its system does: below a folder, with the prefix /usr.
install_with() {
  rm -rf "$work/build" "$work/root"
  # shellcheck disable=SC2086 # words on purpose
  { cmake -G Ninja -S "$source" -B "$work/build" -DCMAKE_INSTALL_PREFIX=/usr \
      -DCMAKE_INSTALL_LIBDIR=lib "$@" &&
    cmake --build "$work/build" &&
    DESTDIR="$work/root" cmake --install "$work/build"; } >"$work/output" 2>&1 ||
    { cat "$work/output" >&2; fail "it does not build with $*"; }
  ! grep -q 'not used by the project' "$work/output" || fail "unknown options in $*"
}

# ---- Yocto ----
# shellcheck disable=SC2016 # ${...} is for bitbake
# The value of a variable, all its additions joined, with the usual folders in place.
bitbake_value() {
  sed -n "s/^$1 [+?]*= \"\(.*\)\"\$/\1/p" "$yocto" |
    sed 's,${nonarch_libdir},/usr/lib,; s,${datadir},/usr/share,; s,${PN},tevrol-dbus-remote,' |
    tr '\n' ' ' | sed 's/ $//'
}
if grep -Evn '^(#.*|[A-Z_]+(:\$\{PN\})? \+?= "[^"]*"|inherit [a-z ]+|)$' "$yocto"; then
  fail "not understood"
fi
same "version of the recipe" "$(basename "$yocto" .bb)" "tevrol-dbus-remote_$version"
# shellcheck disable=SC2016 # ${...} is for bitbake
same "group of the recipe" "$(bitbake_value 'GROUPADD_PARAM:${PN}')" "--system $group"
# shellcheck disable=SC2046 # words on purpose
install_with $(bitbake_value EXTRA_OECMAKE)
# shellcheck disable=SC2016 # ${...} is for bitbake
files=" $(bitbake_value 'FILES:${PN}') "
for file in $files; do
  [ -e "$work/root$file" ] || fail "the recipe names $file, which is not installed"
done
(cd "$work/root" && find . ! -type d | sed 's/^\.//') >"$work/installed"
while read -r file; do
  # The folders that the packages of a recipe have by themselves: runtime, -dev, -doc.
  case $file in
    /usr/lib/lib*.so.*) ;;
    /usr/include/* | /usr/lib/lib*.so | /usr/lib/pkgconfig/* | /usr/lib/cmake/*) ;;
    /usr/share/doc/*) ;;
    *) case $files in *" $file "*) ;; *) fail "no package of the recipe has $file" ;; esac ;;
  esac
done <"$work/installed"

# ---- Buildroot ----
cat >"$work/Makefile" <<'END'
cmake-package =
include $(BR2_EXTERNAL_TEVROL_PATH)/external.mk
value:
	@echo $($(NAME))
END
make_value() {
  make --no-print-directory --warn-undefined-variables -f "$work/Makefile" \
    BR2_EXTERNAL_TEVROL_PATH="$buildroot" NAME="TEVROL_DBUS_REMOTE_$1" value 2>"$work/complaints"
  [ ! -s "$work/complaints" ] || { cat "$work/complaints" >&2; fail "make complains"; }
}
same "version of the package" "$(make_value VERSION)" "$version"
[ -f "$(make_value SITE)/CMakeLists.txt" ] || fail "no source in $(make_value SITE)"
# shellcheck disable=SC2046 # words on purpose
set -- $(make_value USERS)
same "group of the package" "$1 $3" "- $group"
# shellcheck disable=SC2046 # words on purpose
install_with -DBUILD_SHARED_LIBS=ON $(make_value CONF_OPTS)
[ -f "$work/root/usr/share/dbus-1/system.d/org.ulmar.Tevrol.conf" ] || fail "no policy"

# ---- Both: the licence ----
[ ! -e "$source/LICENSE" ] || fail "there is a licence: the recipes say that there is none"
same "licence of the recipe" "$(bitbake_value LICENSE)" CLOSED
same "licence of the package" "$(make_value LICENSE)" PROPRIETARY
echo "the recipes of Yocto and Buildroot fit what is installed"
