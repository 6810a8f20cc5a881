#!/bin/sh
# Makes the API reference from the headers' comments, in build/docs/html. Installs what is missing; a
# warning is an error.
#   --pictures   draws the pictures in docs/images by tevrolctl instead: both sequences of the
#                handshake, and what a monitor sees of an application and its partner
cd "$(dirname "$0")/.." || exit
. scripts/lib/command.sh

case ${1-} in
  --pictures) exec scripts/lib/pictures.sh ;;
  ?*) wrong_usage ;;
esac
install_packages doxygen
mkdir -p build/docs
doxygen docs/Doxyfile
echo "build/docs/html/index.html"
