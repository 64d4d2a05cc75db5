#!/usr/bin/env bash
# Installs the built package into a scratch prefix and builds and runs the
# example consumer against it, out of tree, as a product would.
# usage: consumer_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
work=$build/consumer-test
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work.install.log" 2>&1 || { cat "$work.install.log"; exit 1; }
cmake -S "$src/examples/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
      -DCMAKE_CXX_COMPILER="${CXX:-g++}" > "$work.configure.log" 2>&1 || { cat "$work.configure.log"; exit 1; }
cmake --build "$work/build" > "$work.build.log" 2>&1 || { cat "$work.build.log"; exit 1; }
"$work/build/consumer_own_host"
"$work/build/consumer_default_host"

# The same consumer built with nothing but pkg-config's flags.
pcdir=$(dirname "$(find "$work/prefix" -name vrk.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs vrk)
"${CXX:-g++}" "$src/examples/consumer/main.cpp" -o "$work/pkgconfig_consumer" $flags
"$work/pkgconfig_consumer"
