# Cross-build for the instrument's aarch64 board on a Debian workstation, with Debian's
# multiarch packages: crossbuild-essential-arm64 for the compiler, and qtbase5-dev:arm64 and
# qtpositioning5-dev:arm64 for Qt (after `dpkg --add-architecture arm64`). The arm64 libraries
# live in the host's own /usr under lib/aarch64-linux-gnu, so there is no separate sysroot;
# moc and the other Qt tools come from the host's qtbase5-dev-tools.
#
#   cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KRPAL_TARGET_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${KRPAL_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KRPAL_TARGET_TRIPLET}-g++)
# Selects lib/aarch64-linux-gnu for find_package, find_library and GNUInstallDirs.
set(CMAKE_LIBRARY_ARCHITECTURE ${KRPAL_TARGET_TRIPLET})

# GNUInstallDirs picks Debian's multiarch library directory under /usr only for native builds;
# the board's packages need it just the same.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$" AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
    set(CMAKE_INSTALL_LIBDIR "lib/${KRPAL_TARGET_TRIPLET}" CACHE PATH "Object code libraries")
endif()

# Host programs (moc, rcc) from the host, everything else only for the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Libraries that are not multiarch (libfiu, for one) sit in /usr/lib and are the host's; linking
# them fails. Without them the parts that need them are left out, as on a host that lacks them.
set(CMAKE_IGNORE_PATH /usr/lib /lib)

# pkg-config answers for the target's .pc files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${KRPAL_TARGET_TRIPLET}/pkgconfig:/usr/share/pkgconfig")

# CTest runs target programs through user-mode emulation (Debian's qemu-user). The arm64 Qt
# packages bring the arm64 C library and its loader into the host's multiarch root, which is
# then the emulator's library prefix; the cross package's loader in /usr/aarch64-linux-gnu
# does not match that C library (threads never run), so it serves only where the multiarch
# loader is missing.
find_program(KRPAL_QEMU_AARCH64 qemu-aarch64)
if(KRPAL_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${KRPAL_QEMU_AARCH64}")
    if(NOT EXISTS /lib/ld-linux-aarch64.so.1)
        list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L /usr/${KRPAL_TARGET_TRIPLET})
    endif()
endif()
