#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds and runs every test in both Qt flavours. In the first flavour asked for (Qt 5 by
# default): the suite (end-to-end runs aside) under AddressSanitizer + UndefinedBehaviorSanitizer,
# the lint (scripts/lint.sh), the library's coverage by the tests (scripts/coverage.sh) and the
# whole suite in a normal build, end-to-end runs against the pymodbus slave included. In the
# last flavour asked for (Qt 6 by default): the concurrency tests under ThreadSanitizer and the
# suite in a normal build without the end-to-end runs of ten seconds or more (label long: the
# tool's code is the same in both flavours). The armhf leg: the suite cross-built and run under
# qemu-user, the long runs left out, and the Debian packages built and checked. Each build tree
# is configured and built once; the sanitizer builds run each test program as one process. The
# normal builds' libraries are checked against their ABI baselines (abi/).
# Usage: scripts/test.sh [--no-sanitizers] [--no-cross] [--qt 5|6]   (default: both flavours)
set -euo pipefail
cd "$(dirname "$0")/.."

with_sanitizers=1
with_cross=1
flavours=(5 6)
while [ $# -gt 0 ]; do
  case "$1" in
    --no-sanitizers) with_sanitizers=0 ;;
    --no-cross) with_cross=0 ;;
    --qt) shift; flavours=("${1:?--qt needs 5 or 6}") ;;
    *) echo "usage: scripts/test.sh [--no-sanitizers] [--no-cross] [--qt 5|6]" >&2; exit 2 ;;
  esac
  shift
done
tsan_flavour=${flavours[-1]}

scripts/install-deps.sh "${flavours[@]}"
jobs=$(nproc)
started=$SECONDS

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

leg_started=0
begin_leg() {
  leg_started=$SECONDS
  echo "== $*"
}
end_leg() {
  echo "== took $((SECONDS - leg_started)) s"
}

if [ "$with_sanitizers" -eq 1 ]; then
  major=${flavours[0]}
  begin_leg "Qt $major: AddressSanitizer + UndefinedBehaviorSanitizer"
  configure_and_build "build-asan-qt$major" -DMODBUS_QT_MAJOR="$major" \
    -DMODBUS_SANITIZER=address -DMODBUS_BUILD_BENCH=OFF -DMODBUS_BUILD_TOOLS=OFF \
    -DMODBUS_CTEST_PER_CASE=OFF
  (cd "build-asan-qt$major" && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs" -LE e2e)
  end_leg

  begin_leg "Qt $tsan_flavour: ThreadSanitizer (concurrency tests)"
  configure_and_build "build-tsan-qt$tsan_flavour" -DMODBUS_QT_MAJOR="$tsan_flavour" \
    -DMODBUS_SANITIZER=thread -DMODBUS_BUILD_BENCH=OFF -DMODBUS_BUILD_TOOLS=OFF \
    -DMODBUS_BUILD_FUZZ=OFF -DMODBUS_CTEST_PER_CASE=OFF -- concurrency_tests
  (cd "build-tsan-qt$tsan_flavour" && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L concurrency)
  end_leg
fi

# ---- armhf leg: cross build and tests under qemu-arm, then the Debian packages -------------
# The sysroot is made on the first run (.sysroot/) and reused afterwards. The amd64 packages
# are built and checked (contents, dependencies, use from a scratch root); the armhf packages
# (scripts/package.sh armhf) are left to a run by hand, for the time a second cross build
# would take.
if [ "$with_cross" -eq 1 ]; then
  begin_leg "armhf: cross build, tests under qemu-user"
  scripts/cross-test.sh armhf -LE long
  end_leg
  begin_leg "Debian packages (amd64)"
  scripts/package.sh amd64
  end_leg
fi
# ---- end of the armhf leg ---------------------------------------------------------------

# Lint reads the compile database of the first flavour's build tree (configured here, built
# by its leg below); coverage builds a tree of its own, instrumented, without the tools.
begin_leg "Lint: clang-tidy and cppcheck"
MODBUS_QT_MAJOR=${flavours[0]} scripts/lint.sh
end_leg
begin_leg "Qt ${flavours[0]}: line and branch coverage of the library by the tests"
MODBUS_QT_MAJOR=${flavours[0]} scripts/coverage.sh
end_leg

# The full suites run last, so that their summaries close the output.
for major in "${flavours[@]}"; do
  begin_leg "Qt $major: build and test"
  # The second flavour runs each test program as one process, without the long runs.
  per_case=ON selection=()
  [ "$major" = "${flavours[0]}" ] || { per_case=OFF; selection=(-LE long); }
  configure_and_build "build-qt$major" -DMODBUS_QT_MAJOR="$major" -DMODBUS_CTEST_PER_CASE="$per_case"
  (cd "build-qt$major" && ctest --output-on-failure -j"$jobs" "${selection[@]}")
  scripts/check-abi.sh "build-qt$major"
  end_leg
done
echo "== all legs passed in $((SECONDS - started)) s"
