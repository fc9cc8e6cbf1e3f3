#!/bin/sh
# SPDX-License-Identifier: MIT
# The consumer test: installs the project into a staging prefix, or builds the tiny host in
# tests/consumer/host against that prefix and runs it, checking that it ran with the installed
# library and not with the build tree's.
# The host asks for the flavour QT_MAJOR by name, must end up linked to that Qt only, and the
# other flavour's name must not be found.
# Usage: run_consumer_test.sh install STAGE BUILD_DIR
#        run_consumer_test.sh find_package|pkg-config STAGE WORK_DIR QT_MAJOR
set -eu
lookup=$1
stage=$2
here=$(cd "$(dirname "$0")" && pwd)

if [ "$lookup" = install ]; then
  rm -rf "$stage"
  exec cmake --install "$3" --prefix "$stage"
fi
work=$3
qt_major=$4
case "$qt_major" in 5) other_qt_major=6 ;; *) other_qt_major=5 ;; esac

libdir=$(dirname "$(find "$stage" -name 'libModbus_ASCII_Master.so.1' | head -n 1)")
[ -d "$libdir" ] || { echo "no libModbus_ASCII_Master.so.1 under $stage"; exit 1; }

rm -rf "$work"
case "$lookup" in
  find_package) set -- -DCMAKE_PREFIX_PATH="$stage" ;;
  # Only the .pc file: no CMake package may help here.
  pkg-config) PKG_CONFIG_PATH=$libdir/pkgconfig; export PKG_CONFIG_PATH; set -- ;;
esac
cmake -S "$here/host" -B "$work" -DCONSUMER_LOOKUP="$lookup" -DCONSUMER_QT_MAJOR="$qt_major" "$@" \
  >"$work.configure.log" 2>&1 || { cat "$work.configure.log"; exit 1; }
cmake --build "$work"

needed_qt=$(readelf -d "$work/consumer_host" | sed -n 's/.*NEEDED.*\[\(libQt[^]]*\)\]/\1/p' | sort)
[ "$needed_qt" = "libQt${qt_major}Core.so.$qt_major" ] ||
  { echo "the host needs '$needed_qt', expected libQt${qt_major}Core.so.$qt_major only"; exit 1; }
rm -rf "$work-other"
if cmake -S "$here/host" -B "$work-other" -DCONSUMER_LOOKUP="$lookup" \
  -DCONSUMER_QT_MAJOR="$other_qt_major" "$@" >"$work-other.configure.log" 2>&1; then
  echo "a host asking for the Qt $other_qt_major flavour found this Qt $qt_major installation"
  exit 1
fi
case "$lookup" in
  find_package) refusal="built against Qt $qt_major, not Qt$other_qt_major" ;;
  pkg-config) refusal="modbus-ascii-master-qt$other_qt_major" ;;
esac
# CMake wraps its messages: the reason is looked for with the lines joined.
tr -s ' \n' '  ' <"$work-other.configure.log" | grep -q "$refusal" || {
  echo "the Qt $other_qt_major flavour was refused for another reason:"
  cat "$work-other.configure.log"
  exit 1
}
if [ "$lookup" = pkg-config ]; then
  flavour_variable=$(pkg-config --variable=qt_major modbus-ascii-master)
  [ "$flavour_variable" = "$qt_major" ] ||
    { echo "modbus-ascii-master.pc says qt_major=$flavour_variable, expected $qt_major"; exit 1; }
fi

output=$("$work/consumer_host")
echo "$output"
stage_real=$(cd "$stage" && pwd -P)
driver=$(printf '%s\n' "$output" | sed -n 's/^driver: //p')
case "$(readlink -f "$driver")" in
  "$stage_real"/*) ;;
  *) echo "the host ran with $driver, not with the library installed under $stage"; exit 1 ;;
esac
