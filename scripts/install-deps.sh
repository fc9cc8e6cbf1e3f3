#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need, when missing, and
# the further packages named as arguments (the cross and packaging scripts name theirs).
# Usage: scripts/install-deps.sh [PACKAGE...]
set -euo pipefail

packages=(
  cmake g++ make pkg-config binutils
  qtbase5-dev libqt5serialport5-dev
  googletest libgtest-dev libbenchmark-dev
  python3 python3-pymodbus python3-serial-asyncio socat
  python3-matplotlib tmux
  "$@"
)

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
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi
