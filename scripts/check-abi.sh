#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The ABI guard: compares the ABI of a build tree's libModbus_ASCII_Master.so.<N> (its exported
# functions and variable, and every type they reach: the records and their Qt members) with the
# checked-in baseline of its SONAME, Qt flavour and architecture, abi/<SONAME>.qt<M>.<arch>.abi,
# using libabigail's abidw and abidiff. The flavour comes from the Qt Core the library needs,
# the headers from the build's source tree. docs/ABI.md says why the baseline is stable and how
# it moves on purpose.
# Usage: scripts/check-abi.sh [--update] [BUILD_DIR]   (BUILD_DIR defaults to build/; the build
# needs debug information: RelWithDebInfo, the default, or Debug)
#   --update  writes the build's ABI as the baseline of its SONAME instead of comparing
# Exit status: 0 no incompatible change (added symbols are not reported; the exported_symbols
# test forbids them), 1 an incompatible change (the report is printed), 2 cannot compare.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
update=0
if [ "${1:-}" = "--update" ]; then
  update=1
  shift
fi
build=${1:-$root/build}

cannot() {
  echo "check-abi: $*" >&2
  exit 2
}

command -v abidw >/dev/null || cannot "abidw is missing (Debian package abigail-tools)"
[ -f "$build/CMakeCache.txt" ] || cannot "$build is not a build tree (no CMakeCache.txt)"
library=$build/libModbus_ASCII_Master.so
[ -e "$library" ] || cannot "$library is missing: build the target Modbus_ASCII_Master"
dynamic=$(readelf -d "$library")
soname=$(sed -n 's/.*Library soname: \[\(.*\)\]/\1/p' <<<"$dynamic")
qt_major=$(sed -n 's/.*(NEEDED).*\[libQt\([0-9]\)Core\.so\.[0-9]*\]/\1/p' <<<"$dynamic")
[ -n "$qt_major" ] || cannot "$library needs no Qt Core library"
case "$(readelf -h "$library" | sed -n 's/^ *Machine: *//p')" in
  *X86-64) arch=amd64 ;;
  AArch64) arch=arm64 ;;
  ARM) arch=armhf ;;
  *) cannot "$library is of an architecture without baselines" ;;
esac
readelf -S "$library" | grep -q '\.debug_info' ||
  cannot "$library has no debug information: build it with RelWithDebInfo or Debug"
source_dir=$(sed -n 's/^ModbusAsciiMaster_SOURCE_DIR:STATIC=//p' "$build/CMakeCache.txt")
baseline=$root/abi/$soname.qt$qt_major.$arch.abi

# Only the interface's types (the public headers and what they reach), no build paths, file
# names without directories, type ids from the types themselves: the same ABI gives the same
# baseline on any machine, with gcc or clang, optimised or not.
abi_of_library() {
  abidw --no-corpus-path --no-comp-dir-path --short-locs --type-id-style hash \
    --headers-dir "$source_dir/include" --drop-private-types "$library"
}

# The licence and origin go inside the root element: abidiff takes a file that starts with a
# comment for an unknown kind of file.
baseline_notes="  <!-- SPDX-License-Identifier: MIT -->
  <!-- The ABI baseline of one flavour, written by scripts/check-abi.sh (docs/ABI.md). -->"

if [ "$update" -eq 1 ]; then
  mkdir -p "$root/abi"
  abi_of_library | awk -v notes="$baseline_notes" '{ print } NR == 1 { print notes }' >"$baseline"
  echo "wrote the baseline $baseline"
  exit 0
fi
[ -f "$baseline" ] || cannot "no baseline $baseline (a new SONAME: see docs/ABI.md)"

current=$(mktemp)
trap 'rm -f "$current"' EXIT
abi_of_library >"$current"
status=0
report=$(abidiff --no-added-syms "$baseline" "$current" 2>&1) || status=$?
# abidiff's status is a bit field: 1 error, 2 usage error, 4 a change, 8 an incompatible one.
# A damaged baseline may only show as libxml2's parser error, with status 0.
if [ $((status & 3)) -ne 0 ] || grep -q 'parser error' <<<"$report"; then
  cannot "abidiff failed ($status): $report"
fi
if [ $((status & 12)) -ne 0 ]; then
  echo "$report"
  echo "check-abi: $soname (Qt $qt_major, $arch) is not compatible with $baseline" >&2
  exit 1
fi
echo "check-abi: $soname (Qt $qt_major, $arch) is compatible with abi/$(basename "$baseline")"
