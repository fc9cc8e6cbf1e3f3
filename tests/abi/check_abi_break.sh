#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Shows that scripts/check-abi.sh catches a broken record layout: in a copy of the library's
# sources a field is added at the front of RW_VAR, only the library is built (Debug, the
# quickest build with debug information), and the check must fail with a report that names
# the field. Exits 77 (skipped) without abigail-tools.
# Usage: check_abi_break.sh SOURCE_DIR QT_MAJOR WORK_DIR   (WORK_DIR is emptied first)
set -euo pipefail
source_dir=$1
qt_major=$2
work=$3

command -v abidw >/dev/null || { echo "skipped: abigail-tools is not installed"; exit 77; }
rm -rf "$work"
mkdir -p "$work/tree"
cp -r "$source_dir/CMakeLists.txt" "$source_dir/LICENSE" "$source_dir/CHANGELOG.md" \
  "$source_dir/cmake" "$source_dir/include" "$source_dir/src" "$work/tree/"
header=$work/tree/include/modbus_ascii_master.h
sed -i 's/^struct RW_VAR {$/&\n    int abiBreakField = 0;/' "$header"
grep -q abiBreakField "$header" || { echo "FAIL: no 'struct RW_VAR {' line in $header"; exit 1; }

cmake -S "$work/tree" -B "$work/build" -DCMAKE_BUILD_TYPE=Debug -DMODBUS_QT_MAJOR="$qt_major" \
  -DMODBUS_BUILD_TESTS=OFF -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_BENCH=OFF \
  -DMODBUS_BUILD_FUZZ=OFF >/dev/null
cmake --build "$work/build" -j"$(nproc)" --target Modbus_ASCII_Master >/dev/null

status=0
report=$("$source_dir/scripts/check-abi.sh" "$work/build" 2>&1) || status=$?
echo "$report"
[ "$status" -eq 1 ] || { echo "FAIL: check-abi.sh exited $status, expected 1"; exit 1; }
grep -q "'int abiBreakField', at offset 0 (in bits)" <<<"$report" ||
  { echo "FAIL: the report does not name the added field"; exit 1; }
echo "PASS: the broken layout of RW_VAR is reported"
