#!/bin/sh
# The consumer test: installs the project into a staging prefix, or builds the tiny host in
# tests/consumer/host against that prefix and runs it, checking that it ran with the installed
# library and not with the build tree's.
# Usage: run_consumer_test.sh install STAGE BUILD_DIR
#        run_consumer_test.sh find_package|pkg-config STAGE WORK_DIR
set -eu
lookup=$1
stage=$2
here=$(cd "$(dirname "$0")" && pwd)

if [ "$lookup" = install ]; then
  rm -rf "$stage"
  exec cmake --install "$3" --prefix "$stage"
fi
work=$3

libdir=$(dirname "$(find "$stage" -name 'libModbus_ASCII_Master.so.1' | head -n 1)")
[ -d "$libdir" ] || { echo "no libModbus_ASCII_Master.so.1 under $stage"; exit 1; }

rm -rf "$work"
case "$lookup" in
  find_package) set -- -DCMAKE_PREFIX_PATH="$stage" ;;
  # Only the .pc file: no CMake package may help here.
  pkg-config) PKG_CONFIG_PATH=$libdir/pkgconfig; export PKG_CONFIG_PATH; set -- ;;
esac
cmake -S "$here/host" -B "$work" -DCONSUMER_LOOKUP="$lookup" "$@" >"$work.configure.log" 2>&1 ||
  { cat "$work.configure.log"; exit 1; }
cmake --build "$work"

output=$("$work/consumer_host")
echo "$output"
stage_real=$(cd "$stage" && pwd -P)
driver=$(printf '%s\n' "$output" | sed -n 's/^driver: //p')
case "$(readlink -f "$driver")" in
  "$stage_real"/*) ;;
  *) echo "the host ran with $driver, not with the library installed under $stage"; exit 1 ;;
esac
