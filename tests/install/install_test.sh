#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds the README's host-application example
# against it, through pkg-config and through the CMake package config, and the C interface's
# test as a C11 program through pkg-config; then decodes a frame with each.
set -euo pipefail
build_dir="$1"
source_dir="$(cd "$(dirname "$0")" && pwd)"
readme="$source_dir/../../README.md"
frame="${2:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libvidra_mjpeg.so' -printf '%h\n' | head -n1)

# The first C++ block of the README is the example.
mkdir -p "$work/src"
awk '/^```cpp$/ {inside = 1; next} /^```$/ && inside {exit} inside {print}' "$readme" \
  >"$work/src/consumer.cc"
cp "$source_dir/CMakeLists.txt" "$work/src/"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -std=c++17 -Wall -Wextra -Werror "$work/src/consumer.cc" -o "$work/consumer-pc" \
  $(pkg-config --cflags --libs vidra-mjpeg)

# The C interface from a C11 program.
cc -std=c11 -Wall -Wextra -Werror -pedantic "$source_dir/../c/c_api_test.c" -o "$work/c-consumer" \
  $(pkg-config --cflags --libs vidra-mjpeg)

cmake -S "$work/src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

if [ -n "$frame" ] && [ -f "$frame" ]; then
  LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" "$frame"
  LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" "$frame"
  LD_LIBRARY_PATH="$libdir" "$work/c-consumer" "$frame"
else
  echo "no frame to decode (corpus absent): built only"
fi
echo "install ok"
