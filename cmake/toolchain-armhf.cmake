# Cross build for 32-bit ARM Linux (armhf) with Debian's cross compiler, the
# private sysroot that scripts/setup-arm.sh fills, and qemu-arm to run tests.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DWEXBL_ARM_SYSROOT=$PWD/build-arm-sysroot
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT WEXBL_ARM_SYSROOT)
  get_filename_component(WEXBL_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-arm-sysroot" ABSOLUTE)
endif()
set(WEXBL_ARM_SYSROOT "${WEXBL_ARM_SYSROOT}" CACHE PATH "armhf libraries unpacked by scripts/setup-arm.sh")
# try_compile() projects read this file again: hand them the same sysroot, or
# they would point pkg-config (an environment setting, shared with the main
# project) at the default one.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES WEXBL_ARM_SYSROOT)
set(WEXBL_ARM_LIBDIRS
  "${WEXBL_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf"
  "${WEXBL_ARM_SYSROOT}/lib/arm-linux-gnueabihf")

# GCC notes that the ARM calling convention of some std::vector members
# changed in GCC 7.1; everything here is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(CMAKE_FIND_ROOT_PATH "${WEXBL_ARM_SYSROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR}
  "${WEXBL_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${WEXBL_ARM_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${WEXBL_ARM_SYSROOT}")

# libxml2's own dependencies (ICU, lzma, zlib) are found at link time here.
string(REPLACE ";" ":" _wexbl_arm_path "${WEXBL_ARM_LIBDIRS}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_wexbl_arm_path}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_wexbl_arm_path}")

set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=${_wexbl_arm_path}")
