# Cross-compiles for 64-bit ARM Linux with Debian's g++-aarch64-linux-gnu,
# finding arm64 libraries (liblog, GoogleTest) installed through multiarch
# (dpkg --add-architecture arm64). Programs run under qemu-aarch64, so that
# ctest and GoogleTest discovery work on an x86-64 machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Multiarch keeps arm64 libraries under /usr/lib/aarch64-linux-gnu, so the
# machine's own root is searched; host programs are never taken for targets.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

find_program(REACHABILITY_CACHE_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(REACHABILITY_CACHE_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${REACHABILITY_CACHE_QEMU_AARCH64}")
endif()
