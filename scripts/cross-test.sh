#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Cross-builds the driver, its tests and the host tool for an ARM panel and runs the CTest
# suite under qemu-user, the end-to-end tests included: the ARM host tool, under qemu, against
# the native pymodbus slave on a pseudo-terminal pair. Installs what it needs, makes (or
# reuses) the sysroot, builds in build-ARCH/ (build-ARCH-qt6/ for
# MODBUS_QT_MAJOR=6).
# Usage: scripts/cross-test.sh armhf|arm64 [extra ctest arguments]
# Environment: MODBUS_QT_MAJOR (default 5), MODBUS_SYSROOT_DIR (see scripts/make-sysroot.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/cross-arch.sh
. "$root/scripts/cross-arch.sh"
cross_arch_settings "${1:-}"
shift

"$root/scripts/install-deps.sh" "${cross_tool_packages[@]}"
sysroot=$("$root/scripts/make-sysroot.sh" "$deb_arch" | tail -n 1)

build=$root/build-$deb_arch$flavour_suffix
jobs=$(nproc)
echo "== $deb_arch: cross build in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/$cross_triplet.cmake" \
  -DMODBUS_SYSROOT="$sysroot" -DMODBUS_QT_MAJOR="$qt_major" \
  -DMODBUS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$jobs"

echo "== $deb_arch: tests under $qemu"
(cd "$build" && ctest --output-on-failure -j"$jobs" "$@")
