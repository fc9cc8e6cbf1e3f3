# SPDX-License-Identifier: MIT
# Shared part of the cross toolchain files: Debian's cross compiler for MODBUS_CROSS_TRIPLET
# against a sysroot of the target's Debian packages (scripts/make-sysroot.sh), with qemu-user
# as the emulator that runs test programs (test discovery and CTest).
# The sysroot comes from -DMODBUS_SYSROOT=... or the environment variable MODBUS_SYSROOT.
if(NOT MODBUS_SYSROOT AND DEFINED ENV{MODBUS_SYSROOT})
  set(MODBUS_SYSROOT "$ENV{MODBUS_SYSROOT}")
endif()
if(NOT MODBUS_SYSROOT OR NOT EXISTS "${MODBUS_SYSROOT}/usr/include")
  message(FATAL_ERROR "Set MODBUS_SYSROOT to a ${MODBUS_DEB_ARCH} sysroot "
                      "(scripts/make-sysroot.sh ${MODBUS_DEB_ARCH} makes one)")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MODBUS_SYSROOT MODBUS_DEB_ARCH)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT "${MODBUS_SYSROOT}")
set(CMAKE_C_COMPILER ${MODBUS_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MODBUS_CROSS_TRIPLET}-g++)
# Debian's multiarch directories: find_package looks there, and the install puts the library
# there (GNUInstallDirs chooses them by itself only in native builds).
set(CMAKE_LIBRARY_ARCHITECTURE ${MODBUS_CROSS_TRIPLET})
set(CMAKE_INSTALL_LIBDIR lib/${MODBUS_CROSS_TRIPLET} CACHE PATH "Object code libraries (multiarch)")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (cpp-httplib, for the host tool) reads the target's .pc files in the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MODBUS_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${MODBUS_SYSROOT}/usr/lib/${MODBUS_CROSS_TRIPLET}/pkgconfig:${MODBUS_SYSROOT}/usr/share/pkgconfig")

find_program(MODBUS_QEMU_PROGRAM ${MODBUS_QEMU} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${MODBUS_QEMU_PROGRAM};-L;${MODBUS_SYSROOT}")

# Qt 6 runs its build tools (moc, rcc) from the build machine's own Qt 6, not the target's:
# Debian's qt6-base-dev-tools in /usr (installed with the native qt6-base-dev).
if(NOT DEFINED QT_HOST_PATH)
  execute_process(COMMAND dpkg-architecture -qDEB_BUILD_MULTIARCH
    OUTPUT_VARIABLE MODBUS_BUILD_MULTIARCH OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(QT_HOST_PATH /usr)
  set(QT_HOST_PATH_CMAKE_DIR /usr/lib/${MODBUS_BUILD_MULTIARCH}/cmake)
endif()
