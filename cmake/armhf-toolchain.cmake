# Cross build for 32-bit ARM (armhf, Debian 12) with g++-arm-linux-gnueabihf, against the
# private sysroot that scripts/armhf-sysroot makes. Programs built here run under
# qemu-arm-static, so CTest runs the unit tests under emulation.
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DTAVRO_ARMHF_SYSROOT=$(scripts/armhf-sysroot)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT TAVRO_ARMHF_SYSROOT)
    if(DEFINED ENV{TAVRO_ARMHF_SYSROOT})
        set(TAVRO_ARMHF_SYSROOT "$ENV{TAVRO_ARMHF_SYSROOT}")
    else()
        set(TAVRO_ARMHF_SYSROOT /var/cache/tavro-armhf/sysroot)
    endif()
endif()
set(TAVRO_ARMHF_SYSROOT "${TAVRO_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot (scripts/armhf-sysroot)")
if(NOT EXISTS "${TAVRO_ARMHF_SYSROOT}/lib/ld-linux-armhf.so.3")
    message(FATAL_ERROR "No armhf sysroot at ${TAVRO_ARMHF_SYSROOT}: run scripts/armhf-sysroot")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVRO_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes the ABI change of GCC 7 for some argument layouts; all code here is built by
# one compiler, so the note is noise (and -Werror would make it fatal).
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Headers, libraries and CMake packages come from the sysroot; the C library and libstdc++
# from the cross compiler's own directories; build tools from the host.
set(CMAKE_FIND_ROOT_PATH "${TAVRO_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TAVRO_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TAVRO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${TAVRO_ARMHF_SYSROOT}/usr/lib/pkgconfig:${TAVRO_ARMHF_SYSROOT}/usr/share/pkgconfig")

# The sysroot's shared libraries pull in further ones (dbus, systemd) by their DT_NEEDED.
set(_tavro_rpath_link
    "-Wl,-rpath-link,${TAVRO_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf -Wl,-rpath-link,${TAVRO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_tavro_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_tavro_rpath_link}")

# -L makes the emulated program find its loader and libraries in the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${TAVRO_ARMHF_SYSROOT}")
