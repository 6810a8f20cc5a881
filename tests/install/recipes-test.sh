#!/bin/sh
# Checks the recipes in packaging/ against what is really installed, as far as that goes without
# the systems that they are for.
#
# Usage: recipes-test.sh SOURCE_FOLDER BUILD_FOLDER
# BUILD_FOLDER is where the programs are built; they are installed from there.
set -eu
source=$1 build=$2
yocto=$(echo "$source"/packaging/yocto/*.bb)
buildroot=$source/packaging/buildroot

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for program in make python3; do
  command -v $program >/dev/null || { echo "skipped: needs $program"; exit 77; }
done
fail() { echo "failed: $1" >&2; exit 1; }
same() { [ "$2" = "$3" ] || fail "$1: \"$2\" instead of \"$3\""; }

version=$(sed -n 's/^project(tevrol-dbus-remote VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
group=$(sed -n 's/.*<policy group="\(.*\)">.*/\1/p' "$source/packaging/dbus/org.ulmar.Tevrol.conf")

# Configured as a recipe says, installed as its system does: below a folder, with the prefix /usr. The
# programs are built already.
install_with() {
  rm -rf "$work/build" "$work/root"
  # shellcheck disable=SC2086 # words on purpose
  { cmake -G Ninja -S "$source" -B "$work/build" -DCMAKE_INSTALL_PREFIX=/usr \
      -DCMAKE_INSTALL_LIBDIR=lib "$@" -DTEVROL_DEVELOPMENT=OFF &&
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
    sed 's,${nonarch_libdir},/usr/lib,g; s,${datadir},/usr/share,g; s,${bindir},/usr/bin,g; s,${PN},tevrol-dbus-remote,g' |
    tr '\n' ' ' | sed 's/ $//'
}
if grep -Evn '^(#.*|[A-Z_]+(:\$\{PN\}(-tools|-dev)?)? (=\+|\+?=) "[^"]*"|inherit [a-z ]+|)$' "$yocto"; then
  fail "not understood"
fi
same "version of the recipe" "$(basename "$yocto" .bb)" "tevrol-dbus-remote_$version"
# shellcheck disable=SC2016 # ${...} is for bitbake
same "group of the recipe" "$(bitbake_value 'GROUPADD_PARAM:${PN}')" "--system $group"
# shellcheck disable=SC2046 # words on purpose
install_with $(bitbake_value EXTRA_OECMAKE)
# shellcheck disable=SC2016 # ${...} is for bitbake
files=" $(bitbake_value 'FILES:${PN}') $(bitbake_value 'FILES:${PN}-dev') "
# shellcheck disable=SC2016 # ${...} is for bitbake
tools=$(bitbake_value 'FILES:${PN}-tools')
DESTDIR="$work/root" cmake --install "$build" --prefix /usr --component tools >"$work/output" 2>&1 ||
  { cat "$work/output" >&2; fail "the programs do not install"; }
for folder in $tools; do
  [ -d "$work/root$folder" ] || fail "the tools' package names $folder, which is not installed"
done
[ -x "$work/root/usr/bin/tevrolctl" ] || fail "no tevrolctl"
for file in $files; do
  [ -e "$work/root$file" ] || fail "the recipe names $file, which is not installed"
done
(cd "$work/root" && find . ! -type d | sed 's/^\.//') >"$work/installed"
while read -r file; do
  # The folders that the packages of a recipe have by themselves: runtime, -dev, -doc.
  case $file in
    /usr/lib/lib*.so.*) ;;
    /usr/include/* | /usr/lib/lib*.so | /usr/lib/pkgconfig/* | /usr/lib/cmake/*) ;;
    /usr/share/doc/* | /usr/share/man/*) ;;
    /usr/bin/* | /usr/share/bash-completion/*) ;;
    *) case $files in *" $file "* | *" ${file%/*} "*) ;; *) fail "no package of the recipe has $file" ;; esac ;;
  esac
done <"$work/installed"

# ---- Buildroot ----
cat >"$work/Makefile" <<'END'
cmake-package =
include $(BR2_EXTERNAL_TEVROL_PATH)/external.mk
value:
	@echo $($(NAME))
END
systemd=y
tools=
make_value() {
  make --no-print-directory --warn-undefined-variables -f "$work/Makefile" \
    BR2_EXTERNAL_TEVROL_PATH="$buildroot" BR2_PACKAGE_SYSTEMD="$systemd" \
    BR2_PACKAGE_TEVROL_DBUS_REMOTE_TOOLS="$tools" NAME="TEVROL_DBUS_REMOTE_$1" value 2>"$work/complaints"
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
[ -f "$work/root/usr/include/tevrol/channel.h" ] || fail "no tevrol::Channel"
systemd=
case $(make_value CONF_OPTS) in *-DTEVROL_CHANNEL=OFF*) ;; *) fail "sd-bus without systemd" ;; esac

tools=y
case $(make_value CONF_OPTS) in *-DTEVROL_DEVELOPMENT=ON*) ;; *) fail "no programs" ;; esac
case $(make_value DEPENDENCIES) in *json-glib*) ;; *) fail "tevrolctl without json-glib" ;; esac

# ---- Conan and vcpkg: what they name, as far as that goes without them ----
python3 - "$source" "$version" <<'PYTHON' || fail "Conan and vcpkg"
import ast, json, pathlib, sys
source, version = pathlib.Path(sys.argv[1]), sys.argv[2]
recipe = ast.parse((source / "packaging/conan/conanfile.py").read_text())
conan = {target.id: ast.literal_eval(item.value)
         for node in recipe.body if isinstance(node, ast.ClassDef)
         for item in node.body if isinstance(item, ast.Assign) for target in item.targets}
port = json.loads((source / "packaging/vcpkg/vcpkg.json").read_text())
for found in (conan, port):
    named = (found["name"], found["version"], found["license"])
    assert named == ("tevrol-dbus-remote", version, "MIT"), named
PYTHON
# The port, with functions of vcpkg's that only look at the paths that they get.
cat >"$work/port.cmake" <<'END'
function(vcpkg_cmake_configure)
  cmake_parse_arguments(given "" SOURCE_PATH OPTIONS ${ARGN})
  if(NOT EXISTS ${given_SOURCE_PATH}/CMakeLists.txt)
    message(FATAL_ERROR "no source in ${given_SOURCE_PATH}")
  endif()
endfunction()
function(vcpkg_cmake_config_fixup)
  cmake_parse_arguments(given "DO_NOT_DELETE_PARENT_CONFIG_PATH" "PACKAGE_NAME;CONFIG_PATH" "" ${ARGN})
  if(NOT EXISTS ${ROOT}/usr/${given_CONFIG_PATH}/${given_PACKAGE_NAME}-config.cmake)
    message(FATAL_ERROR "not installed: ${given_CONFIG_PATH}")
  endif()
endfunction()
function(vcpkg_install_copyright)
  cmake_parse_arguments(given "" "" FILE_LIST ${ARGN})
  if(NOT EXISTS ${given_FILE_LIST})
    message(FATAL_ERROR "no licence in ${given_FILE_LIST}")
  endif()
endfunction()
function(vcpkg_cmake_install)
endfunction()
function(vcpkg_fixup_pkgconfig)
endfunction()
include(${PORT})
END
cmake -DROOT="$work/root" -DCURRENT_PACKAGES_DIR="$work/packages" \
  -DPORT="$source/packaging/vcpkg/portfile.cmake" -P "$work/port.cmake" >"$work/output" 2>&1 ||
  { cat "$work/output" >&2; fail "the port of vcpkg"; }

# ---- All: the licence, and the version ----
licence=MIT
grep -qx "$licence License" "$source/LICENSE" || fail "another licence in LICENSE"
same "licence of the recipe" "$(bitbake_value LICENSE)" "$licence"
sum=$(md5sum <"$source/LICENSE" | cut -d ' ' -f 1)
same "checksum of the recipe" "$(bitbake_value LIC_FILES_CHKSUM)" "file://LICENSE;md5=$sum"
same "licence of the package" "$(make_value LICENSE)" "$licence"
same "checksum of the package" "$(grep -v '^#' "$buildroot/tevrol-dbus-remote/tevrol-dbus-remote.hash")" \
  "sha256  $(sha256sum <"$source/LICENSE" | cut -d ' ' -f 1)  $(make_value LICENSE_FILES)"
same "version of the Debian packages" \
  "$(sed -n '1s/^tevrol-dbus-remote (\([0-9.]*\)).*/\1/p' "$source/debian/changelog")" "$version"
grep -q "^## $version, " "$source/CHANGELOG.md" || fail "CHANGELOG.md has no $version"
echo "the recipes fit what is installed"
