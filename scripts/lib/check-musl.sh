#!/bin/sh
# Compiles what a device gets, libraries and programs, against the headers of musl: what glibc alone has is
# an error. It does not link, because Debian's libraries are built for glibc. Installs what is missing.
cd "$(dirname "$0")/../.." || exit
. scripts/lib/command.sh

install_packages @build clang libc++-dev musl-dev
make_temporary_folder

# The C library's headers are musl's. The others lie where none of glibc's is found with them.
machine=$(gcc -dumpmachine)
mkdir -p "$folder/other" "$folder/version/ipc"
for name in systemd linux asm-generic; do ln -s "/usr/include/$name" "$folder/other/$name"; done
ln -s "/usr/include/$machine/asm" "$folder/other/asm"
sed 's/@[A-Z_]*@/0/' cmake/version.h.in >"$folder/version/ipc/tevrol-version.h"

count=0
for source in $(git ls-files 'src/*.cpp' 'devkit/*.cpp' 'programs/*.cpp' 'examples/*.cpp'); do
  # shellcheck disable=SC2046 # words on purpose
  clang++ -std=c++20 -fsyntax-only -nostdinc -D_LIBCPP_HAS_MUSL_LIBC -D_GNU_SOURCE \
    -DTEVROL_PARTNER_PROGRAM='""' -Isrc -I. -I"$folder/version" \
    -isystem "$(dirname "$(realpath /usr/lib/llvm-*/include/c++/v1/vector)")" \
    -isystem "$(clang++ -print-resource-dir)/include" \
    -isystem "/usr/include/${machine%-gnu}-musl" -isystem "$folder/other" \
    $(pkg-config --cflags gio-unix-2.0 json-glib-1.0 libsystemd | sed 's/-I/-isystem /g') "$source"
  count=$((count + 1))
done
figure "$count sources compile against musl's headers"
