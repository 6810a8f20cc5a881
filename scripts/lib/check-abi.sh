#!/bin/sh
# Compares the shared libraries with those of the last release: fails where an application that was built
# against the release would break. Installs what is missing.
cd "$(dirname "$0")/../.." || exit
. scripts/lib/command.sh

install_packages @build abigail-tools git
read -r release commit <scripts/lib/last-release.txt
make_temporary_folder
git archive --prefix=release/ "$commit" | tar -x -C "$folder"

# libraries FOLDER NAME: built from the source there, with what abidiff reads.
libraries() {
  quietly cmake -G Ninja -S "$1" -B "$folder/$2" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DBUILD_SHARED_LIBS=ON -DTEVROL_DEVELOPMENT=OFF
  quietly cmake --build "$folder/$2"
}
libraries "$folder/release" old
libraries . new

# status: 4 is any change, 8 one that breaks applications; 1 and 2 are errors of its own.
for library in "$folder"/old/lib*.so; do
  status=0
  abidiff --no-added-syms "$library" "$folder/new/${library##*/}" >"$folder/report" || status=$?
  if [ $((status & 11)) -ne 0 ]; then
    cat "$folder/report" >&2
    echo "${library##*/} breaks what was built against $release" >&2
    exit 1
  fi
  figure "${library##*/}: no break since $release"
done
