# Builds for a router's architecture, QUORVIA_ARCH (arm64 or armhf), with
# Debian's cross compilers against build-sysroot-QUORVIA_ARCH/root, which
# `scripts/install-deps.sh --cross QUORVIA_ARCH` makes from that architecture's
# packages. Tests and discovery run under qemu-user.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUORVIA_ARCH)
if(QUORVIA_ARCH STREQUAL "arm64")
    set(CMAKE_SYSTEM_PROCESSOR aarch64)
    set(triplet aarch64-linux-gnu)
elseif(QUORVIA_ARCH STREQUAL "armhf")
    set(CMAKE_SYSTEM_PROCESSOR arm)
    set(triplet arm-linux-gnueabihf)
    # Every object is built by this one compiler: GCC's notes that an ABI
    # changed in GCC 7.1 say nothing about this tree.
    set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
else()
    message(FATAL_ERROR "QUORVIA_ARCH is arm64 or armhf, not '${QUORVIA_ARCH}'")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build-sysroot-${QUORVIA_ARCH}/root
                       ABSOLUTE)

# Libraries, headers and CMake packages from the sysroot; programs (the thrift
# compiler) from the machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# The programs that a test starts run through the kernel's binfmt_misc entry
# for qemu, which finds the sysroot's loader by QEMU_LD_PREFIX: -E hands it to
# them.
set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/bin/qemu-${CMAKE_SYSTEM_PROCESSOR}-static -L ${CMAKE_SYSROOT}
    -E QEMU_LD_PREFIX=${CMAKE_SYSROOT})

# make package: a .deb for the router's architecture, whose dependencies
# dpkg-shlibdeps takes from the sysroot's libraries.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${QUORVIA_ARCH})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_SYSROOT}/lib/${triplet} ${CMAKE_SYSROOT}/usr/lib/${triplet})
