#!/usr/bin/env bash
# One entry point for people and CI.
#   ./build.sh demo   install what is missing, build, and run the built-in demo
#   ./build.sh test   install what is missing, build, and run the whole test suite: normally,
#                     with SIMD hidden, and under AddressSanitizer + UBSan; on x86-64 hosts
#                     also build the library and its tests for aarch64 and run them under
#                     qemu-aarch64, with NEON and with NEON hidden; build the Release
#                     configuration; then the concurrency tests under ThreadSanitizer and
#                     fuzzing runs (decoders 60 s, splitter 20 s)
#   ./build.sh deps   only install the Debian packages the build needs
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake ninja-build g++ pkg-config libturbojpeg0-dev libjpeg62-turbo-dev libgtest-dev
          libbenchmark-dev libpng-dev libavformat-dev libavcodec-dev libavutil-dev
          clang libclang-rt-14-dev ffmpeg libjpeg-turbo-progs
          libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
          gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav
          pybind11-dev python3-dev python3-numpy python3-pytest python3-av python3-opencv
          python3-venv python3-wheel)
# On x86-64 the suite is also built for aarch64 and run under qemu-aarch64: the cross compiler,
# qemu, and the arm64 packages of multiarch next to the native ones. (On an arm64 host the
# native build is that build.)
ARM64_PACKAGES=()
CROSS_AARCH64=false
if [ "$(dpkg --print-architecture)" = amd64 ]; then
  CROSS_AARCH64=true
  PACKAGES+=(g++-aarch64-linux-gnu qemu-user)
  ARM64_PACKAGES=(libturbojpeg0-dev:arm64 libjpeg62-turbo-dev:arm64 libgtest-dev:arm64)
fi

install_deps() {
  local missing=()
  for package in "${PACKAGES[@]}" "${ARM64_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "build.sh: installing packages needs root: run as root or install sudo" >&2
      exit 1
    fi
    sudo=(sudo)
  fi
  # arm64 packages install only once dpkg knows the architecture; the update below then
  # fetches its package lists.
  if [[ " ${missing[*]}" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64
  then
    "${sudo[@]}" dpkg --add-architecture arm64
  fi
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq "${missing[@]}"
}

build() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
}

case "${1:-demo}" in
  deps)
    install_deps
    ;;
  demo)
    install_deps
    build default
    ./build/default/tools/vidra-mjpeg demo
    ;;
  test)
    install_deps
    build default
    echo "== tests =="
    ctest --preset default
    echo "== tests with SIMD hidden (VIDRA_CPU_MASK=nosimd) =="
    ctest --preset scalar
    echo "== tests with AVX2 hidden (VIDRA_CPU_MASK=noavx2) =="
    ctest --preset noavx2
    if $CROSS_AARCH64; then
      build aarch64
      echo "== tests built for aarch64, under qemu-aarch64 =="
      ctest --preset aarch64
      echo "== tests built for aarch64 with NEON hidden (VIDRA_CPU_MASK=noneon) =="
      ctest --preset aarch64-scalar
    fi
    echo "== Release build (-O3, warnings as errors) =="
    build release
    build tsan
    echo "== concurrent decodes, refusals, concealment and fallback under ThreadSanitizer =="
    TSAN_OPTIONS=halt_on_error=1 ./build/tsan/tests/hardening_test --gtest_filter='*Concurrent*'
    build fuzz
    echo "== fuzzing both decoder paths for 60 s =="
    fuzz_corpus=$(mktemp -d)
    trap 'rm -rf "$fuzz_corpus"' EXIT
    # Seeds from every corpus folder; the folder name goes in front, since names repeat.
    for seed in ../shared/corpus/*/*.jpg; do
      [ -e "$seed" ] || continue
      cp "$seed" "$fuzz_corpus/$(basename "$(dirname "$seed")")-$(basename "$seed")"
    done
    mkdir -p build/fuzz/artifacts
    # A crash, a leak or an input that takes over 10 s ends the run with an error; the input is
    # kept in build/fuzz/artifacts/.
    ./build/fuzz/fuzz/decode_fuzzer -max_total_time=60 -timeout=10 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix=build/fuzz/artifacts/ "$fuzz_corpus"
    echo "== fuzzing the stream splitter for 20 s =="
    ./build/fuzz/fuzz/splitter_fuzzer -max_total_time=20 -timeout=10 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix=build/fuzz/artifacts/ "$fuzz_corpus"
    # Last, so that the run closes on the test runner's summary.
    build asan
    echo "== tests under AddressSanitizer + UBSan =="
    ctest --preset asan
    ;;
  *)
    echo "usage: $0 [demo|test|deps]" >&2
    exit 2
    ;;
esac
