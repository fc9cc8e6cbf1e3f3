#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes (or reuses) a Debian sysroot for cross-building the driver: the target architecture's
# Qt, GoogleTest and C/C++ development packages, extracted with mmdebstrap from the mirror
# that this machine's apt uses. Prints the sysroot's path as its last line.
# Usage: scripts/make-sysroot.sh armhf|arm64
# Environment: MODBUS_QT_MAJOR (default 5), MODBUS_SYSROOT_DIR (default .sysroot/ in the
# worktree, git-ignored).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/cross-arch.sh
. "$root/scripts/cross-arch.sh"
cross_arch_settings "${1:-}"

case "$qt_major" in
  5) qt_packages=(qtbase5-dev libqt5serialport5-dev) ;;
  6) qt_packages=(qt6-base-dev qt6-serialport-dev) ;;
  *) echo "MODBUS_QT_MAJOR must be 5 or 6, not $qt_major" >&2; exit 2 ;;
esac

. /etc/os-release
codename=$VERSION_CODENAME
gcc_major=$("$cross_triplet-g++" -dumpversion | cut -d. -f1)
packages=("${qt_packages[@]}" libcpp-httplib-dev libtomlplusplus-dev libgtest-dev libc6-dev "libstdc++-$gcc_major-dev")

# The mirror of this release's main suite, read from apt's configuration so that no mirror is
# named here. Only the release itself: the security archive of another architecture can be
# at another version or in mid-sync.
apt_sources() {
  apt-get indextargets --format '$(SITE) $(RELEASE) $(COMPONENT) $(TARGET_OF)' |
    awk -v codename="$codename" \
      '$4 == "deb" && $3 == "main" && $2 == codename {
         print "deb " $1 " " $2 " main" }' | sort -u
}

mapfile -t sources < <(apt_sources)
if [ ${#sources[@]} -eq 0 ]; then
  echo "apt has no 'main' source for $codename; cannot make a sysroot" >&2
  exit 1
fi

sysroot_base=${MODBUS_SYSROOT_DIR:-$root/.sysroot}
sysroot=$sysroot_base/$codename-$deb_arch-qt$qt_major
recipe=$(printf '%s\n' "format 1: DEBIAN/symbols and shlibs" "$deb_arch" "${packages[@]}" "${sources[@]}")

if [ -f "$sysroot/.recipe" ] && [ "$(cat "$sysroot/.recipe")" = "$recipe" ]; then
  echo "reusing the sysroot $sysroot" >&2
  echo "$sysroot"
  exit 0
fi

echo "making the sysroot $sysroot (${packages[*]})" >&2
mkdir -p "$sysroot_base"
staging=$(mktemp -d "$sysroot_base/.staging.XXXXXX")
trap 'rm -rf "$staging"' EXIT
mmdebstrap --quiet --variant=extract --architectures="$deb_arch" --skip=cleanup/apt/cache \
  --include="$(IFS=,; echo "${packages[*]}")" "$codename" "$staging/tree" "${sources[@]}" >&2

# The symbols and shlibs control files of the extracted packages go to DEBIAN/, where
# dpkg-shlibdeps finds the dependency information of libraries that no installed package owns
# (scripts/package.sh); then the downloaded packages are removed.
gather_dependency_information() {
  local tree=$1 deb part
  mkdir -p "$tree/DEBIAN"
  for deb in "$tree"/var/cache/apt/archives/*.deb; do
    for part in symbols shlibs; do
      dpkg-deb --ctrl-tarfile "$deb" | tar -xO "./$part" >>"$tree/DEBIAN/$part" 2>/dev/null || true
    done
    rm -f "$deb"
  done
}
gather_dependency_information "$staging/tree"
printf '%s\n' "$recipe" >"$staging/tree/.recipe"
rm -rf "$sysroot"
mv "$staging/tree" "$sysroot"
echo "$sysroot"
