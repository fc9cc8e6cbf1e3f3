# SPDX-License-Identifier: MIT
# Sourced by the cross and packaging scripts: the settings of one target architecture.

# Build directories of another Qt flavour than the default 5 get its name as a suffix.
qt_major=${MODBUS_QT_MAJOR:-5}
flavour_suffix=""
[ "$qt_major" = 5 ] || flavour_suffix=-qt$qt_major

# cross_arch_settings ARCH sets deb_arch, cross_triplet, qemu and cross_tool_packages (the
# Debian packages that cross-building, emulation and the sysroot need on the build machine).
cross_arch_settings() {
  case "$1" in
    armhf) cross_triplet=arm-linux-gnueabihf; qemu=qemu-arm-static ;;
    arm64) cross_triplet=aarch64-linux-gnu; qemu=qemu-aarch64-static ;;
    *) echo "usage: $0 armhf|arm64" >&2; exit 2 ;;
  esac
  deb_arch=$1
  cross_tool_packages=(mmdebstrap qemu-user-static dpkg-dev "g++-$cross_triplet")
  # A Qt 6 cross build runs the build machine's own Qt 6 tools (QT_HOST_PATH, see
  # cmake/toolchains/debian-cross.cmake).
  [ "$qt_major" = 5 ] || cross_tool_packages+=(qt6-base-dev)
}
