#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Replays fuzz inputs (default: the regression inputs) through the standalone fuzz runner built
# with clang's source-based coverage, and prints the line, branch and function coverage that
# they reach in the library's sources. An HTML view is left in build-fuzz-coverage/html/.
# Usage: scripts/fuzz-coverage.sh [DIR_OR_FILE...]   e.g. build-fuzz-plain/corpus
set -euo pipefail
cd "$(dirname "$0")/.."
inputs=("$@")
[ ${#inputs[@]} -gt 0 ] || inputs=(fuzz/regressions)
build=build-fuzz-coverage
scripts/install-deps.sh 5
{ command -v clang++ && command -v llvm-cov; } >/dev/null || scripts/install-deps.sh 5 clang llvm
coverage_flags="-fprofile-instr-generate -fcoverage-mapping"
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DMODBUS_QT_MAJOR=5 \
  -DCMAKE_CXX_FLAGS="$coverage_flags" -DCMAKE_EXE_LINKER_FLAGS="$coverage_flags" \
  -DMODBUS_BUILD_TESTS=OFF -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzz_driver
rm -rf "$build/profiles" && mkdir -p "$build/profiles"
# The runner takes files; a corpus of thousands of inputs is replayed a few hundred at a time.
find "${inputs[@]}" -type f -print0 |
  LLVM_PROFILE_FILE="$build/profiles/%p.profraw" xargs -0 -n 400 "$build/fuzz/fuzz_driver" >/dev/null
llvm-profdata merge -sparse "$build"/profiles/*.profraw -o "$build/fuzz.profdata"
echo "inputs replayed: $(find "${inputs[@]}" -type f | wc -l)"
llvm-cov report "$build/fuzz/fuzz_driver" -instr-profile="$build/fuzz.profdata" src/
llvm-cov show "$build/fuzz/fuzz_driver" -instr-profile="$build/fuzz.profdata" -format=html \
  -output-dir="$build/html" src/
