# Debian's cross compiler for arm64, with the arm64 builds of Debian's libraries installed beside
# the host's (multiarch), and qemu to run what it builds. scripts/build-arm64.sh uses it:
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Debian keeps liblog and libbase, and their headers, in folders of their own.
list(APPEND CMAKE_LIBRARY_PATH /usr/lib/aarch64-linux-gnu/android)
list(APPEND CMAKE_INCLUDE_PATH /usr/include/android)

# The arm64 libraries pull in Debian's arm64 C library, so the loader must come from the same
# root ("/", the multiarch one): a loader and a libc.so.6 of different glibc builds need not agree.
# The library folder is given to the emulated process only, never written into a binary.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L / -E
                                  LD_LIBRARY_PATH=/usr/lib/aarch64-linux-gnu/android)
