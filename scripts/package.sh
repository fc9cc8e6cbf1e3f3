#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the Debian packages (runtime, development, tools) for amd64 or, cross-compiled
# against the sysroot of scripts/make-sysroot.sh, for armhf or arm64. The packages land in
# build-package-ARCH/packages/ (build-package-ARCH-qt6/packages/ for MODBUS_QT_MAJOR=6) and
# are then checked by scripts/check-packages.sh (and, for this machine's own architecture, used
# from a scratch root; against the other flavour's packages when they have been built).
# Usage: scripts/package.sh amd64|armhf|arm64
# Environment: MODBUS_QT_MAJOR (default 5), MODBUS_SYSROOT_DIR (see scripts/make-sysroot.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:-}
[ -n "$arch" ] || { echo "usage: $0 amd64|armhf|arm64" >&2; exit 2; }

# shellcheck source=scripts/cross-arch.sh
. "$root/scripts/cross-arch.sh"
native_arch=$(dpkg --print-architecture)
cross_arguments=()
if [ "$arch" = "$native_arch" ]; then
  "$root/scripts/install-deps.sh" dpkg-dev file lintian
else
  cross_arch_settings "$arch"
  "$root/scripts/install-deps.sh" "${cross_tool_packages[@]}" lintian
  sysroot=$("$root/scripts/make-sysroot.sh" "$arch" | tail -n 1)
  cross_arguments=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/$cross_triplet.cmake"
                   -DMODBUS_SYSROOT="$sysroot")
fi

build=$root/build-package-$arch$flavour_suffix
echo "== $arch: building the packages in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DMODBUS_QT_MAJOR="$qt_major" -DMODBUS_BUILD_TESTS=OFF -DMODBUS_BUILD_BENCH=OFF \
  -DMODBUS_BUILD_FUZZ=OFF "${cross_arguments[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB -B "$build/packages" >/dev/null)
rm -rf "$build/packages/_CPack_Packages"

for deb in "$build"/packages/*.deb; do
  echo "-- $(basename "$deb")"
  dpkg-deb -f "$deb" Package Architecture Version Depends | sed 's/^/   /'
done

# With the other Qt flavour's packages of this architecture at hand, the check also shows that
# the two flavours cannot be installed together.
case "$qt_major" in 5) other_suffix=-qt6 ;; *) other_suffix="" ;; esac
other_packages=$root/build-package-$arch$other_suffix/packages
other_arguments=()
if compgen -G "$other_packages/*.deb" >/dev/null; then
  other_arguments=("$other_packages")
fi
"$root/scripts/check-packages.sh" "$build/packages" "$arch" "${other_arguments[@]}"
