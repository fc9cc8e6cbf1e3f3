#!/usr/bin/env bash
# Builds and runs every test: the suite (end-to-end runs aside) under AddressSanitizer +
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer, the armhf leg (the
# suite cross-built and run under qemu-user, and the Debian packages built and checked), and
# the full suite in a normal build.
# Usage: scripts/test.sh [--no-sanitizers] [--no-cross]
set -euo pipefail
cd "$(dirname "$0")/.."

with_sanitizers=1
with_cross=1
for option in "$@"; do
  case "$option" in
    --no-sanitizers) with_sanitizers=0 ;;
    --no-cross) with_cross=0 ;;
    *) echo "usage: $0 [--no-sanitizers] [--no-cross]" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh
jobs=$(nproc)

configure_and_build() {  # dir, extra cmake arguments..., then targets after --
  local dir=$1; shift
  local args=() targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do args+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  targets=("$@")
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
  if [ ${#targets[@]} -gt 0 ]; then
    cmake --build "$dir" -j"$jobs" --target "${targets[@]}"
  else
    cmake --build "$dir" -j"$jobs"
  fi
}

if [ "$with_sanitizers" -eq 1 ]; then
  echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
  configure_and_build build-asan -DMODBUS_SANITIZER=address -DMODBUS_BUILD_BENCH=OFF \
    -DMODBUS_BUILD_TOOLS=OFF
  (cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs" -LE e2e)

  echo "== ThreadSanitizer (concurrency tests)"
  configure_and_build build-tsan -DMODBUS_SANITIZER=thread -DMODBUS_BUILD_BENCH=OFF \
    -DMODBUS_BUILD_TOOLS=OFF -DMODBUS_BUILD_FUZZ=OFF -- concurrency_tests
  (cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L concurrency)
fi

# ---- armhf leg: cross build and tests under qemu-arm, then the Debian packages -------------
# The sysroot is made on the first run (.sysroot/) and reused afterwards. The amd64 packages
# are checked (contents, dependencies, use from a scratch root); the armhf ones are built.
if [ "$with_cross" -eq 1 ]; then
  echo "== armhf: cross build, tests under qemu-user"
  scripts/cross-test.sh armhf
  echo "== Debian packages"
  scripts/package.sh amd64
  scripts/package.sh armhf
fi
# ---- end of the armhf leg ---------------------------------------------------------------

# The full suite runs last, so that its summary closes the output.
echo "== build and test"
configure_and_build build
(cd build && ctest --output-on-failure -j"$jobs")
