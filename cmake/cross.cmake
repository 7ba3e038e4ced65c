# Shared by the toolchain files: Debian's cross compiler for `cross_machine`, and qemu-user to run what it makes.
#
# cross_machine    the processor, as CMake and qemu spell it
# CROSS_ROOT       a folder with libraries for that machine (scripts/cross puts GoogleTest and what the tools need
#                  there); packages are searched for there and nowhere on the host

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${cross_machine})
set(CMAKE_CXX_COMPILER ${cross_machine}-linux-gnu-g++)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CROSS_ROOT)

# Debian's folders for libraries. What a shared library needs is linked and loaded from there, too.
set(cross_libraries ${CROSS_ROOT}/lib/${cross_machine}-linux-gnu:${CROSS_ROOT}/usr/lib/${cross_machine}-linux-gnu)
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link=${cross_libraries})

# A program started by ctest or by the build runs under qemu, with the target's C library.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${cross_machine} -L /usr/${cross_machine}-linux-gnu
                                  -E LD_LIBRARY_PATH=${cross_libraries})

set(CMAKE_FIND_ROOT_PATH ${CROSS_ROOT} /usr/${cross_machine}-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The host's .pc files describe libraries of the host.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CROSS_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CROSS_ROOT}/usr/lib/${cross_machine}-linux-gnu/pkgconfig:${CROSS_ROOT}/usr/share/pkgconfig)
