# NOT an Android toolchain: the NDK is not available to CI. This file lets CI
# take the project's Android branch without it. Like the NDK's toolchain file
# it sets ANDROID and makes shared libraries refuse undefined symbols; it
# compiles for arm64 with Debian's cross compiler, and Debian's arm64 liblog
# stands in for the NDK's: its header is on the standard include path, as in
# the NDK's sysroot, and find_library(log) finds the library.
include("${CMAKE_CURRENT_LIST_DIR}/aarch64-linux-gnu.cmake")

set(ANDROID TRUE)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES /usr/include/android)
list(APPEND CMAKE_LIBRARY_PATH /usr/lib/aarch64-linux-gnu/android)
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,--no-undefined")
