# SPDX-License-Identifier: MIT
# 32-bit ARM panels (Debian armhf): arm-linux-gnueabihf-g++ and qemu-arm-static.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(MODBUS_CROSS_TRIPLET arm-linux-gnueabihf)
set(MODBUS_DEB_ARCH armhf)
set(MODBUS_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
