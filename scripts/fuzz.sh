#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the libFuzzer target for a while (default 60 s) in a clang ASan+UBSan build of the
# given Qt flavour (default 5), starting from the regression inputs. A crash input is left in
# build-fuzz-qt5/ (or -qt6/); copy it to fuzz/regressions/ under a name that says what it found.
# Usage: scripts/fuzz.sh [seconds] [5|6]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
qt_major=${2:-5}
build=build-fuzz-qt$qt_major
scripts/install-deps.sh "$qt_major"
command -v clang++ >/dev/null || scripts/install-deps.sh "$qt_major" clang libclang-rt-14-dev
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_QT_MAJOR="$qt_major" \
  -DMODBUS_SANITIZER=address -DMODBUS_LIBFUZZER=ON -DMODBUS_BUILD_TESTS=OFF \
  -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzz_driver_libfuzzer
mkdir -p "$build/corpus"
cp fuzz/regressions/* "$build/corpus/"
# A smaller quarantine and shorter allocation stacks keep ASan's bookkeeping off the profile.
cd "$build" && ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=3 \
  fuzz/fuzz_driver_libfuzzer -max_total_time="$seconds" -max_len=400 -timeout=10 corpus
