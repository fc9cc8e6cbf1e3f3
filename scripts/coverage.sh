#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Line and branch coverage of the library's sources (src/) by the test suite: the unit,
# interface, concurrency and loader (blackbox) tests, in a build instrumented with gcov (gcc
# --coverage, -O0). The end-to-end tests are left out: they drive the host tool against a
# pymodbus slave and would count the library's lines that the tool happens to reach, not what
# a test checks. Branches that only throw (operator new's std::bad_alloc inside Qt's inline
# code) are not counted: the library throws nothing. An HTML view is left in
# build-coverage/html/. The last line is `coverage: lines=NN.N% branches=NN.N%`.
# Usage: scripts/coverage.sh [BUILD_DIR]   (default build-coverage; build-coverage-qt6 with
# MODBUS_QT_MAJOR=6 in front, for the Qt 6 flavour)
set -euo pipefail
cd "$(dirname "$0")/.."
major=${MODBUS_QT_MAJOR:-5}
suffix=""
[ "$major" = 5 ] || suffix="-qt$major"
build=${1:-build-coverage$suffix}
scripts/install-deps.sh "$major" gcovr
jobs=$(nproc)

# The concurrency tests run the driver on several threads: counters updated without atomics
# drift apart there, and gcov then derives a negative branch count that gcovr cannot parse.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DMODBUS_QT_MAJOR="$major" \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_SHARED_LINKER_FLAGS="--coverage" \
  -DCMAKE_EXE_LINKER_FLAGS="--coverage" -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF \
  -DMODBUS_BUILD_FUZZ=OFF -DMODBUS_CTEST_PER_CASE=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target unit_tests interface_tests concurrency_tests \
  dlopen_tests
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest --output-on-failure -j"$jobs" -L 'unit|interface|concurrency|blackbox')

mkdir -p "$build/html"
# The compiler checks that cmake compiled at configure time left coverage notes too.
gcovr --root . "$build" --exclude-directories "$build/CMakeFiles/[0-9.]+" --filter 'src/' \
  --exclude-throw-branches \
  --html-details "$build/html/index.html" --json-summary "$build/coverage.json" \
  --print-summary
python3 - "$build/coverage.json" <<'EOF'
import json, sys
summary = json.load(open(sys.argv[1]))
print("coverage: lines=%.1f%% branches=%.1f%%" % (summary["line_percent"],
                                                  summary["branch_percent"]))
EOF
