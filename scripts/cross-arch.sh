# Sourced by the cross scripts: the settings of one target architecture.
# cross_arch_settings ARCH sets deb_arch, cross_triplet, qemu and cross_compiler_package.
cross_arch_settings() {
  case "$1" in
    armhf) cross_triplet=arm-linux-gnueabihf; qemu=qemu-arm-static ;;
    arm64) cross_triplet=aarch64-linux-gnu; qemu=qemu-aarch64-static ;;
    *) echo "usage: $0 armhf|arm64" >&2; exit 2 ;;
  esac
  deb_arch=$1
  cross_compiler_package=g++-$cross_triplet
}
