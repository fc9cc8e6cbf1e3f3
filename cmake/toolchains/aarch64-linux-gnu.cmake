# SPDX-License-Identifier: MIT
# 64-bit ARM panels (Debian arm64): aarch64-linux-gnu-g++ and qemu-aarch64-static.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MODBUS_CROSS_TRIPLET aarch64-linux-gnu)
set(MODBUS_DEB_ARCH arm64)
set(MODBUS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
