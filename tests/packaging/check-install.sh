#!/usr/bin/env bash
# Installs the project into a temporary prefix and builds a small consumer against it with
# find_package and with pkg-config, then runs both.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

# pkg-config gives the self-contained shared library.
libdir=$(dirname "$(find "$work/prefix" -name NimbOrraPushAddonApns.pc)")/..
export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -std=c++20 "$source_dir/consumer.cpp" -o "$work/consumer-pc" \
  $(pkg-config --cflags --libs NimbOrraPushAddonApns)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"
