#!/usr/bin/env bash
# Runs the libFuzzer target for a while (default 60 s) in a clang ASan+UBSan build of the
# given Qt flavour (default 5). A crash input is left in build-fuzz-qt5/ (or -qt6/); copy it
# to fuzz/regressions/ as a named regression.
# Usage: scripts/fuzz.sh [seconds] [5|6]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
qt_major=${2:-5}
build=build-fuzz-qt$qt_major
scripts/install-deps.sh "$qt_major"
command -v clang++ >/dev/null || apt-get install -y -qq clang libclang-rt-dev >/dev/null
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_QT_MAJOR="$qt_major" \
  -DMODBUS_SANITIZER=address -DMODBUS_LIBFUZZER=ON -DMODBUS_BUILD_TESTS=OFF \
  -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzz_driver_libfuzzer
mkdir -p "$build/corpus"
cd "$build" && fuzz/fuzz_driver_libfuzzer -max_total_time="$seconds" -max_len=256 corpus
