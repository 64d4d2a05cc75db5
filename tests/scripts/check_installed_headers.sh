#!/usr/bin/env bash
# Installs the build into a scratch prefix and compiles every installed
# header on its own, as the first include of a file, with the project's
# warnings and the stricter ones products commonly use as errors (pkg-config
# gives -I, not -isystem): a header that needs another included before it,
# includes one that is not installed or warns in a product's build fails.
# usage: check_installed_headers.sh BUILD_DIR [CXX]
set -euo pipefail
build=$1 cxx=${2:-${CXX:-g++}}
prefix=$build/installed-headers
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
cd "$prefix/include"
flags="-std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion"
export cxx flags="$flags -Wold-style-cast -Werror"
find vrk -name '*.hpp' | sort | xargs -P 2 -I{} sh -c \
  'printf "#include \"%s\"\n" "{}" | "$cxx" $flags -I. -x c++ - \
     || { echo "does not compile cleanly alone: {}"; exit 255; }'
echo "installed headers compile alone: $(find vrk -name '*.hpp' | wc -l)"
