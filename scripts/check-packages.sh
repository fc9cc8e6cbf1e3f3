#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks the Debian packages that scripts/package.sh built: the files of each package, the
# dependencies dpkg-shlibdeps computed, the shlibs file of the runtime package, the version
# (the project's, from CMakeLists.txt) and lintian (no error, no warning). Packages of
# this machine's own architecture are then unpacked into a scratch root and used there: the
# tiny host of the consumer test is built through find_package and through pkg-config, and the
# packaged modbus-ascii-host loads the packaged library. Given the other Qt flavour's packages
# as well, dpkg installs both sets into a scratch database, to show that the flavours exclude
# each other: installing one removes the other.
# Usage: scripts/check-packages.sh DIR [ARCH [OTHER_FLAVOUR_DIR]]   (DIR holds the three .deb
# files; ARCH defaults to this machine's architecture)
# Environment: MODBUS_QT_MAJOR, the flavour of the packages in DIR (default 5).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(cd "${1:?usage: $0 DIR [ARCH [OTHER_FLAVOUR_DIR]]}" && pwd)
native_arch=$(dpkg --print-architecture)
arch=${2:-$native_arch}
other_dir=${3:-}

qt_major=${MODBUS_QT_MAJOR:-5}
case "$qt_major" in
  5) qt_core=libqt5core5a qt_serialport=libqt5serialport5 qt_dev=qtbase5-dev other_flavour=qt6 ;;
  6) qt_core=libqt6core6 qt_serialport=libqt6serialport6 qt_dev=qt6-base-dev other_flavour=qt5 ;;
esac
flavour=qt$qt_major
upstream_version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
[ -n "$upstream_version" ] || { echo "no project version in $root/CMakeLists.txt" >&2; exit 1; }
major=${upstream_version%%.*}
version=$upstream_version-1
runtime=libmodbus-ascii-master-$flavour-$major
development=libmodbus-ascii-master-$flavour-dev
tools=modbus-ascii-master-tools-$flavour
# The flavour-free names that every flavour provides and conflicts with.
virtual_runtime=libmodbus-ascii-master$major
virtual_development=libmodbus-ascii-master-dev
virtual_tools=modbus-ascii-master-tools
multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
lib=./usr/lib/$multiarch

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

deb_of() {
  local file=$dir/${1}_${version}_$arch.deb
  [ -f "$file" ] || { echo "missing package file $file" >&2; exit 1; }
  echo "$file"
}

# Files and symbolic links of a package, "path" or "path -> target", sorted.
package_files() {
  dpkg-deb -c "$1" | awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }' | sort
}

expect_files() {
  local deb=$1 expected actual
  shift
  expected=$(printf '%s\n' "$@" | sort)
  actual=$(package_files "$deb")
  [ "$actual" = "$expected" ] ||
    fail "files of $(basename "$deb"):$(diff <(echo "$expected") <(echo "$actual") | sed 's/^/  /')"
}

expect_field() {  # package file, field, extended regular expression
  local value
  value=$(dpkg-deb -f "$1" "$2")
  grep -Eq "$3" <<<"$value" || fail "$2 of $(basename "$1") is '$value', expected to match $3"
}

# Unpacks the three packages into a scratch root and builds and runs hosts against them.
use_from_scratch_root() {
  echo "== use from a scratch root"
  local lookup plan
  for deb in "$runtime_deb" "$development_deb" "$tools_deb"; do
    dpkg-deb -x "$deb" "$scratch/root"
  done
  for lookup in find_package pkg-config; do
    "$root/tests/consumer/run_consumer_test.sh" "$lookup" "$scratch/root/usr" \
      "$scratch/host-$lookup" "$qt_major" || fail "the consumer host through $lookup"
  done
  plan=$("$scratch/root/usr/bin/modbus-ascii-host" --plan \
    --tags "$scratch/root/usr/share/doc/$tools/examples/tags.csv") ||
    fail "the packaged modbus-ascii-host did not load the packaged library"
  grep -q '^      4       1 4x                3       0      112 registers$' <<<"$plan" ||
    fail "unexpected read plan from the packaged modbus-ascii-host: $plan"
}

# Status of a package in the scratch dpkg database: "installed", or empty when it is not.
scratch_status() {
  dpkg-query --admindir="$scratch/dpkg" -W -f='${db:Status-Status}' "$1" 2>/dev/null |
    grep -x installed || true
}

# Installs this flavour's packages, then the other flavour's, into a scratch dpkg database
# (without their dependencies, which that database does not hold): the other flavour must
# replace every package of this one, and the driver's file then belongs to the other flavour.
check_flavours_exclude_each_other() {
  echo "== the $flavour and $other_flavour packages exclude each other"
  local admin=$scratch/dpkg package other owner
  mkdir -p "$admin/info" "$admin/updates" "$admin/triggers" "$scratch/dpkg-root"
  touch "$admin/status" "$admin/available"
  [ "$arch" = "$native_arch" ] || dpkg --admindir="$admin" --add-architecture "$arch"
  scratch_dpkg() {
    dpkg --admindir="$admin" --instdir="$scratch/dpkg-root" \
      --log=/dev/null --force-depends --force-script-chrootless "$@" >>"$scratch/dpkg.log" 2>&1
  }
  if ! scratch_dpkg -i "$runtime_deb" "$development_deb" "$tools_deb"; then
    fail "dpkg could not install the $flavour packages: $(tail -n 5 "$scratch/dpkg.log")"
    return
  fi
  if ! scratch_dpkg -i "$other_dir"/*.deb; then
    fail "dpkg could not replace them by the $other_flavour ones: $(tail -n 5 "$scratch/dpkg.log")"
    return
  fi
  for package in "$runtime" "$development" "$tools"; do
    other=${package/$flavour/$other_flavour}
    [ -z "$(scratch_status "$package")" ] || fail "$package stayed installed next to $other"
    [ -n "$(scratch_status "$other")" ] || fail "$other is not installed after replacing $package"
  done
  owner=$(dpkg-query --admindir="$admin" -S "/usr/lib/$multiarch/$library_file" | cut -d: -f1)
  [ "$owner" = "libmodbus-ascii-master-$other_flavour-$major" ] ||
    fail "$library_file belongs to '$owner' after the flavour change"
}

runtime_deb=$(deb_of "$runtime")
development_deb=$(deb_of "$development")
tools_deb=$(deb_of "$tools")

# Every package's copyright file, changelogs and lintian overrides.
package_files_of() {
  echo "./usr/share/doc/$1/copyright" "./usr/share/doc/$1/changelog.gz" \
    "./usr/share/doc/$1/changelog.Debian.gz" "./usr/share/lintian/overrides/$1"
}

soname=libModbus_ASCII_Master.so.$major
library_file=libModbus_ASCII_Master.so.$upstream_version
echo "== contents"
# shellcheck disable=SC2046  # the file names hold no blanks
expect_files "$runtime_deb" $(package_files_of "$runtime") \
  "$lib/$soname -> $library_file" \
  "$lib/$library_file" \
  "./usr/share/doc/$runtime/SAFETY.md"
# shellcheck disable=SC2046
expect_files "$development_deb" $(package_files_of "$development") \
  "./usr/include/modbus-ascii-master/modbus_ascii_master.h" \
  "./usr/include/modbus-ascii-master/modbus_ascii_master_api.h" \
  "$lib/libModbus_ASCII_Master.so -> $soname" \
  "$lib/pkgconfig/modbus-ascii-master.pc" \
  "$lib/pkgconfig/modbus-ascii-master-$flavour.pc" \
  "$lib/cmake/ModbusAsciiMaster/ModbusAsciiMasterConfig.cmake" \
  "$lib/cmake/ModbusAsciiMaster/ModbusAsciiMasterConfigVersion.cmake" \
  "$lib/cmake/ModbusAsciiMaster/ModbusAsciiMasterTargets.cmake" \
  "$lib/cmake/ModbusAsciiMaster/ModbusAsciiMasterTargets-relwithdebinfo.cmake" \
  "./usr/share/doc/$development/API.md" \
  "./usr/share/doc/$development/README.md"
# shellcheck disable=SC2046
expect_files "$tools_deb" $(package_files_of "$tools") \
  "./usr/share/man/man1/modbus-ascii-host.1.gz" \
  "./usr/share/man/man1/modbus-ascii-sim-slave.1.gz" \
  "./usr/bin/modbus-ascii-host" \
  "./usr/bin/modbus-ascii-sim-slave" \
  "./usr/share/doc/$tools/HOST_TOOL.md" \
  "./usr/share/doc/$tools/examples/demo_slave.json" \
  "./usr/share/doc/$tools/examples/tags.csv" \
  "./usr/share/doc/$tools/examples/panel.toml" \
  "./usr/lib/systemd/system/modbus-ascii-host@.service"

echo "== dependencies"
expect_field "$runtime_deb" Depends "(^|, )$qt_core \(>= $qt_major\.[0-9]"
expect_field "$runtime_deb" Depends "(^|, )libc6 \(>= 2\."
expect_field "$runtime_deb" Depends "(^|, )libstdc\+\+6 \(>= "
expect_field "$runtime_deb" Section "^libs$"
expect_field "$development_deb" Depends "(^|, )$runtime \(= $version\)(,|$)"
expect_field "$development_deb" Depends "(^|, )$qt_dev(,|$)"
expect_field "$tools_deb" Depends "(^|, )$runtime \(= $version\)(,|$)"
expect_field "$tools_deb" Depends "(^|, )$qt_serialport \(>= $qt_major\."
expect_field "$tools_deb" Depends "(^|, )adduser(,|$)"
# The service unit: notify, a watchdog, restarted on failure, one configuration per instance.
unit=$(dpkg-deb --fsys-tarfile "$tools_deb" | tar -xO ./usr/lib/systemd/system/modbus-ascii-host@.service)
for line in "Type=notify" "WatchdogSec=30s" "Restart=on-failure" "User=modbus-ascii-host" \
  "ExecStart=/usr/bin/modbus-ascii-host --config /etc/modbus-ascii-host/%i.toml"; do
  grep -qxF "$line" <<<"$unit" || fail "the service unit lacks the line $line"
done
# systemd-analyze verify and security on the unit as installed, its ExecStart on the tool from
# the same package.
unpacked=$(mktemp -d)
dpkg-deb -x "$tools_deb" "$unpacked"
unit_status=0
"$root/tests/service/check_unit.sh" "$unpacked/usr/lib/systemd/system/modbus-ascii-host@.service" \
  "$unpacked/usr/bin/modbus-ascii-host" || unit_status=$?
rm -rf "$unpacked"
case "$unit_status" in
  0) ;;
  77) echo "the service unit is not verified: systemd-analyze is missing" ;;
  *) fail "systemd-analyze finds fault with the installed service unit" ;;
esac
for kind in runtime development tools; do
  deb_variable=${kind}_deb virtual_variable=virtual_$kind
  package=${!kind} virtual=${!virtual_variable}
  expect_field "${!deb_variable}" Provides "^$virtual \(= $version\)$"
  expect_field "${!deb_variable}" Conflicts "^$virtual$"
  expect_field "${!deb_variable}" Replaces "^${package/$flavour/$other_flavour}$"
done
shlibs=$(dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -xO ./shlibs)
[ "$shlibs" = "libModbus_ASCII_Master $major $runtime (>= $version)" ] ||
  fail "shlibs of the runtime package is '$shlibs'"
for deb in "$runtime_deb" "$development_deb" "$tools_deb"; do
  expect_field "$deb" Version "^$version$"
  changelog_version=$(dpkg-deb --fsys-tarfile "$deb" |
    tar -xO "./usr/share/doc/$(dpkg-deb -f "$deb" Package)/changelog.Debian.gz" | gzip -dc |
    sed -n '1s/^[^ ]* (\([^)]*\)).*/\1/p')
  [ "$changelog_version" = "$version" ] ||
    fail "the Debian changelog of $(basename "$deb") is of version '$changelog_version'"
  scripts=$(dpkg-deb --ctrl-tarfile "$deb" | tar -t | grep -E 'inst$|rm$' || true)
  expected_scripts=""
  [ "$deb" != "$tools_deb" ] || expected_scripts=./postinst  # the service's user
  [ "$scripts" = "$expected_scripts" ] ||
    fail "$(basename "$deb") has maintainer scripts '${scripts//$'\n'/ }', expected '$expected_scripts'"
done
# The project version also names the pkg-config and CMake package versions.
development_file() {
  dpkg-deb --fsys-tarfile "$development_deb" | tar -xO "$lib/$1"
}
pc_version=$(development_file pkgconfig/modbus-ascii-master.pc | sed -n 's/^Version: //p')
[ "$pc_version" = "$upstream_version" ] || fail "modbus-ascii-master.pc says version '$pc_version'"
cmake_version=$(development_file cmake/ModbusAsciiMaster/ModbusAsciiMasterConfigVersion.cmake |
  sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p')
[ "$cmake_version" = "$upstream_version" ] ||
  fail "the CMake package's version file says '$cmake_version'"
# The runtime package activates the ldconfig trigger, in place of maintainer scripts.
triggers=$( (dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -xO ./triggers 2>/dev/null || true) |
  grep -v '^#' || true)
[ "$triggers" = "activate-noawait ldconfig" ] || fail "triggers of the runtime package: '$triggers'"

echo "== lintian"
# Errors and warnings fail, but for the tags overridden with a reason (cmake/lintian/).
lintian --fail-on error,warning "$runtime_deb" "$development_deb" "$tools_deb" ||
  fail "lintian found errors or warnings"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
if [ "$arch" = "$native_arch" ]; then
  use_from_scratch_root
fi
if [ -n "$other_dir" ]; then
  check_flavours_exclude_each_other
fi

[ "$failures" -eq 0 ] || { echo "$failures package checks failed" >&2; exit 1; }
echo "all package checks passed"
