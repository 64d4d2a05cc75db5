#!/usr/bin/env bash
# Installs the built package into a scratch prefix and builds and runs the
# example consumer against it, out of tree, as a product would: once with
# the archives and, when the build made them, once with the shared libraries.
# usage: consumer_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
work=$build/consumer-test
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }
# A product that adds the source tree with add_subdirectory links the shared
# libraries as well (configured and generated only).
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(sub CXX)' "add_subdirectory($src vrk)" \
  "add_executable(app $src/examples/consumer/main.cpp)" 'target_link_libraries(app vrk::vrk_shared)' \
  > "$work/CMakeLists.txt"
cmake -S "$work" -B "$work/sub" -G Ninja > "$work/sub.log" 2>&1 || { cat "$work/sub.log"; exit 1; }
kinds=(static)
[ -n "$(find "$work/prefix" -name 'libvrk_core.so')" ] && kinds+=(shared)
pcdir=$(dirname "$(find "$work/prefix" -name vrk.pc | head -n 1)") lib=$(dirname "$pcdir")
for kind in "${kinds[@]}"; do
  shared=OFF pc=vrk
  [ "$kind" = shared ] && shared=ON pc=vrk-shared
  cmake -S "$src/examples/consumer" -B "$work/$kind" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
        -DVRK_CONSUMER_SHARED=$shared -DCMAKE_CXX_COMPILER="${CXX:-g++}" \
        > "$work/$kind.configure.log" 2>&1 || { cat "$work/$kind.configure.log"; exit 1; }
  cmake --build "$work/$kind" > "$work/$kind.build.log" 2>&1 || { cat "$work/$kind.build.log"; exit 1; }
  "$work/$kind/consumer_own_host"
  "$work/$kind/consumer_default_host"

  # The same consumer built with nothing but pkg-config's flags, which leave
  # the product's language standard as it is.
  flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs $pc)
  "${CXX:-g++}" -std=c++2b -fsyntax-only $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags $pc) \
    -x c++ - <<< '#include "vrk/exception.hpp"
      static_assert(__cplusplus > 202002L);'
  "${CXX:-g++}" -std=c++20 "$src/examples/consumer/main.cpp" -o "$work/$kind/pkgconfig_consumer" $flags
  LD_LIBRARY_PATH="$lib" "$work/$kind/pkgconfig_consumer"
  if [ "$kind" = shared ]; then
    "$work/$kind/consumer_host_library" # the hooks in a library of the product
    # Really the shared libraries: the programs need them, and hold no copy.
    needed=$(ldd "$work/$kind/consumer_default_host")
    [[ $needed == *libvrk_default_host.so* && $needed == *libvrk_core.so* ]]
    own=$(nm -C "$work/$kind/consumer_own_host")
    [[ $own != *" T vrk::exception::exception("* ]]
    # The shared core exports every symbol of ours its archive defines (one
    # missing is a link error in the product), but the internals its map
    # keeps local. Construction vtables are local to each user anyway.
    ours() { nm -C "$@" | sed -nE 's/^[0-9a-f]+ [TDBRVWu] //p' | grep -vE '^(s|construction)' |
             grep -E 'vrk(_extern)?::' | sort -u; }
    unexported=$(comm -23 <(ours --defined-only "$lib/libvrk_core.a") <(ours -D --defined-only "$lib/libvrk_core.so"))
    locals=$(sed -nE 's/^ *"(vrk::.*)";$/\1/p' "$src/cmake/vrk_core.map" | sort)
    [ "$unexported" = "$locals" ] || { echo "libvrk_core.so does not export:"; echo "$unexported"; exit 1; }
  fi
  echo "consumer ($kind): passed"
done
