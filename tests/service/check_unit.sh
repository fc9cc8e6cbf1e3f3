#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The service unit as systemd reads it: `systemd-analyze verify` finds nothing to say of an
# instance (the unit with ExecStart on the tool just built), and `systemd-analyze security`
# rates its exposure OK or better. Skipped (77) without systemd-analyze.
# Usage: check_unit.sh UNIT_FILE HOST_TOOL
set -euo pipefail
unit=$1 tool=$2
command -v systemd-analyze >/dev/null || { echo "skipped: no systemd-analyze"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
instance=$work/modbus-ascii-host@plant.service
sed "s#^ExecStart=/usr/bin/modbus-ascii-host #ExecStart=$tool #" "$unit" >"$instance"
grep -q "^ExecStart=$tool --config /etc/modbus-ascii-host/%i.toml$" "$instance" ||
  { echo "ExecStart is not the tool with --config /etc/modbus-ascii-host/%i.toml"; exit 1; }

said=$(systemd-analyze verify --man=no "$instance" 2>&1) || { echo "$said"; exit 1; }
[ -z "$said" ] || { echo "systemd-analyze verify: $said"; exit 1; }

overall=$(systemd-analyze security --offline=yes "$instance" 2>&1 | grep "Overall exposure")
echo "$overall"
grep -Eq "exposure level for [^:]*: [0-9.]+ (SAFE|OK) " <<<"$overall" ||
  { echo "the unit's exposure is above OK"; exit 1; }
echo "the service unit verifies clean"
