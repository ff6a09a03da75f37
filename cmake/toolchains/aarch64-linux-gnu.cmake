# Cross build for 64-bit ARM Linux with Debian's cross compiler (g++-aarch64-linux-gnu) against
# the arm64 packages of multiarch (dpkg --add-architecture arm64; libturbojpeg0-dev:arm64 and
# the others that build.sh installs). Test binaries run under qemu-aarch64 (package qemu-user),
# both for ctest and for gtest_discover_tests().
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VIDRA_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${VIDRA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VIDRA_CROSS_TRIPLE}-g++)

# Libraries and headers come from the multiarch folders (/usr/lib/aarch64-linux-gnu,
# /usr/include), which the cross compiler searches by itself; programs are the host's.
set(CMAKE_LIBRARY_ARCHITECTURE ${VIDRA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${VIDRA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must see only the arm64 .pc files (and the architecture-independent ones).
set(ENV{PKG_CONFIG_LIBDIR}
    "/usr/lib/${VIDRA_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test binaries run under qemu-aarch64 with the cross C library and libstdc++ of
# /usr/aarch64-linux-gnu. Its loader and its libc must come from the same build: without
# LD_LIBRARY_PATH the loader would pick the arm64 package's libc (from the host's loader
# cache) and hang in the first pthread_create. The arm64 packages' own libraries (TurboJPEG,
# libjpeg) come from /usr/lib/aarch64-linux-gnu, where the loader finds them by itself.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${VIDRA_CROSS_TRIPLE}
    -E LD_LIBRARY_PATH=/usr/${VIDRA_CROSS_TRIPLE}/lib)
