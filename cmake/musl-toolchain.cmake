# Static build against musl libc with Zig's clang (C, and C++ with libc++), against the
# private prefix of static libraries that scripts/musl makes. The programs carry no
# dynamic loader and no shared library: on an x86-64 host they run as they are.
#
#   cmake -S . -B build/musl -DCMAKE_TOOLCHAIN_FILE=cmake/musl-toolchain.cmake \
#         -DTAVRO_MUSL_PREFIX=$(scripts/musl)

if(NOT TAVRO_MUSL_PREFIX)
    if(DEFINED ENV{TAVRO_MUSL_PREFIX})
        set(TAVRO_MUSL_PREFIX "$ENV{TAVRO_MUSL_PREFIX}")
    else()
        set(TAVRO_MUSL_PREFIX /var/cache/tavro-musl/x86_64-linux-musl)
    endif()
endif()
set(TAVRO_MUSL_PREFIX "${TAVRO_MUSL_PREFIX}" CACHE PATH "static musl prefix (scripts/musl)")
if(NOT EXISTS "${TAVRO_MUSL_PREFIX}/bin/c++")
    message(FATAL_ERROR "No musl toolchain at ${TAVRO_MUSL_PREFIX}: run scripts/musl")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVRO_MUSL_PREFIX)

# The prefix's name is its target triple, e.g. x86_64-linux-musl or arm-linux-musleabihf.
get_filename_component(_tavro_musl_target "${TAVRO_MUSL_PREFIX}" NAME)
string(REGEX REPLACE "-.*" "" _tavro_musl_cpu "${_tavro_musl_target}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${_tavro_musl_cpu})

# Small scripts that run "zig cc -target <triple>"; CMake takes no arguments in a compiler.
set(CMAKE_C_COMPILER "${TAVRO_MUSL_PREFIX}/bin/cc")
set(CMAKE_CXX_COMPILER "${TAVRO_MUSL_PREFIX}/bin/c++")
set(CMAKE_AR "${TAVRO_MUSL_PREFIX}/bin/ar" CACHE FILEPATH "")
set(CMAKE_RANLIB "${TAVRO_MUSL_PREFIX}/bin/ranlib" CACHE FILEPATH "")
# Zig's linker asks for 16 MiB of stack in PT_GNU_STACK, which musl takes as its threads'
# default (up to 8 MiB); GNU ld asks for none, and the device's threads get musl's own
# 128 KiB. Asking for less than that here keeps the tests' threads as small as there.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,-z,stack-size=65536")

set(CMAKE_FIND_ROOT_PATH "${TAVRO_MUSL_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The .pc files of the prefix list every static library a library needs in its Libs.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${TAVRO_MUSL_PREFIX}/lib/pkgconfig")

# A foreign CPU's programs run under qemu-user; they are static, so no -L is needed.
if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL CMAKE_HOST_SYSTEM_PROCESSOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR}-static)
endif()
