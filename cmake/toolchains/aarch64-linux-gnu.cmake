# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit Arm Linux with Debian's cross toolchain
# (g++-aarch64-linux-gnu). Target libraries come from the arm64 multiarch
# packages in /usr/lib/aarch64-linux-gnu; test binaries run under
# qemu-user, so ctest and test discovery work as on a native build.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KXCAMERA_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${KXCAMERA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KXCAMERA_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KXCAMERA_CROSS_TRIPLE})

# No sysroot: the multiarch layout keeps arm64 and amd64 libraries in
# separate directories of /usr, and the library architecture above makes the
# find_* commands look only in the arm64 ones. Build tools stay the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# pkg-config must not hand out the host's libraries.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KXCAMERA_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)

find_program(KXCAMERA_QEMU_AARCH64 qemu-aarch64-static REQUIRED)
# -L makes the emulated loader the cross toolchain's. The arm64 multiarch
# packages bring a second glibc build, listed first in the shared library
# cache; LD_LIBRARY_PATH keeps libc with the loader it was built with (a
# mixed pair hangs in the first pthread_create). Everything else (libyuv)
# still comes from the multiarch directories.
set(KXCAMERA_CROSS_RUNTIME /usr/${KXCAMERA_CROSS_TRIPLE})
set(CMAKE_CROSSCOMPILING_EMULATOR ${KXCAMERA_QEMU_AARCH64} -L ${KXCAMERA_CROSS_RUNTIME}
  -E LD_LIBRARY_PATH=${KXCAMERA_CROSS_RUNTIME}/lib)
