#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the benchmarks against the library of the Debian packages in DEB_DIR, unpacked into
# BUILD_DIR-root (no root needed, nothing installed): bench/build_against_packages.sh DEB_DIR
# BUILD_DIR. The flavour is the packages' own. Run the result as any other build, e.g.
# bench/compare_pymodbus.py BUILD_DIR: the benchmark finds the unpacked library by its RUNPATH.
set -euo pipefail
cd "$(dirname "$0")/.."
debs=$(cd "${1:?directory of the .deb files}" && pwd)
build=${2:?build directory}
mkdir -p "$build"
build=$(cd "$build" && pwd)
root="$build-root"
rm -rf "$root"
for deb in "$debs"/libmodbus-ascii-master-qt*.deb; do dpkg-deb -x "$deb" "$root"; done
case "$(basename "$(ls "$debs"/libmodbus-ascii-master-qt*-dev_*.deb)")" in
  *qt6*) qt_major=6 ;;
  *) qt_major=5 ;;
esac
cmake -S bench -B "$build" -DCMAKE_BUILD_TYPE=Release -DMODBUS_QT_MAJOR="$qt_major" \
  -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$build" -j2
ldd "$build/bench/driver_bench" | grep libModbus_ASCII_Master
