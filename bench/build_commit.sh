#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the benchmarks of this tree against the library sources of another commit, in
# Release, for before/after measurements: bench/build_commit.sh COMMIT BUILD_DIR [cmake args...]
# The sources of COMMIT go to BUILD_DIR-src; bench/ and tests/support/ come from this tree,
# since the benchmarks use only the exported interface and the public driver object.
set -euo pipefail
cd "$(dirname "$0")/.."
commit=${1:?commit}
build=${2:?build directory}
shift 2
src="$build-src"
rm -rf "$src"
mkdir -p "$src"
git archive "$commit" | tar -x -C "$src"
rm -rf "$src/bench" "$src/tests/support"
cp -r bench "$src/bench"
cp -r tests/support "$src/tests/support"
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMODBUS_BUILD_TESTS=OFF \
  -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_FUZZ=OFF "$@" >/dev/null
cmake --build "$build" -j2 --target driver_bench
