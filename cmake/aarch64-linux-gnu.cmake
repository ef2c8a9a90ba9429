# Cross build for 64-bit ARM with Debian's cross toolchain
# (crossbuild-essential-arm64) and the arm64 builds of the libraries,
# installed beside the machine's own through multiarch. scripts/cross-aarch64
# installs both and uses this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Libraries and their CMake package files are found in lib/aarch64-linux-gnu.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# Tests run the arm64 programs under qemu-user.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
# pkg-config (which FindCURL asks first) reads the arm64 libraries' files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
