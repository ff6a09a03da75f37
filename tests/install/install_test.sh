#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a host application against it, through
# pkg-config and through the CMake package config.
set -euo pipefail
build_dir="$1"
source_dir="$(cd "$(dirname "$0")" && pwd)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libvidra_mjpeg.so' -printf '%h\n' | head -n1)

export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -std=c++17 "$source_dir/consumer.cc" -o "$work/consumer-pc" $(pkg-config --cflags --libs vidra-mjpeg)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"

cmake -S "$source_dir" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"
echo "install ok"
