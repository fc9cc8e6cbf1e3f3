#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages that building, testing and the demo need, when missing.
# Arguments: 5 and 6 pick the Qt flavours (default: both); any other argument is a further
# package to install (the cross and packaging scripts name theirs).
# Usage: scripts/install-deps.sh [5] [6] [PACKAGE...]
set -euo pipefail

qt_packages_5=(qtbase5-dev libqt5serialport5-dev)
qt_packages_6=(qt6-base-dev qt6-serialport-dev)

packages=(
  cmake g++ make pkg-config binutils
  googletest libgtest-dev libbenchmark-dev
  python3 python3-pymodbus python3-serial-asyncio socat
  ser2net iproute2
  python3-matplotlib tmux
  abigail-tools systemd
  libcpp-httplib-dev libtomlplusplus-dev chromium chromium-driver slowhttptest prometheus
)
flavours=()
for argument in "$@"; do
  case "$argument" in
    5 | 6) flavours+=("$argument") ;;
    *) packages+=("$argument") ;;
  esac
done
[ ${#flavours[@]} -gt 0 ] || flavours=(5 6)
for major in "${flavours[@]}"; do
  case "$major" in
    5) packages+=("${qt_packages_5[@]}") ;;
    6) packages+=("${qt_packages_6[@]}") ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get -o DPkg::Lock::Timeout=900 install \
    -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
