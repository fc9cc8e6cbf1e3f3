#!/usr/bin/env bash
# Runs the libFuzzer target for a while (default 60 s) in a clang ASan+UBSan build, starting
# from the regression inputs. A crash input is left in build-fuzz/; copy it to
# fuzz/regressions/ under a name that says what it found.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
scripts/install-deps.sh
command -v clang++ >/dev/null || apt-get install -y -qq clang libclang-rt-dev >/dev/null
CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_SANITIZER=address \
  -DMODBUS_LIBFUZZER=ON -DMODBUS_BUILD_TESTS=OFF -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target fuzz_driver_libfuzzer
mkdir -p build-fuzz/corpus
cp fuzz/regressions/* build-fuzz/corpus/
# A smaller quarantine and shorter allocation stacks keep ASan's bookkeeping off the profile.
cd build-fuzz && ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=3 \
  fuzz/fuzz_driver_libfuzzer -max_total_time="$seconds" -max_len=400 -timeout=10 corpus
