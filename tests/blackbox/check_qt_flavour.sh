#!/bin/sh
# SPDX-License-Identifier: MIT
# Checks the dynamic sections of a build flavour: the library is known to the loader by its
# one SONAME, and the library and every other binary given need Qt of the flavour's major
# version only (a process cannot hold Qt 5 and Qt 6 containers side by side).
# Usage: check_qt_flavour.sh MAJOR SONAME LIBRARY [BINARY...]  (LIBRARY is checked as a binary too)
set -eu
major=$1
soname=$2
library=$3
shift 2

status=0
actual_soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
if [ "$actual_soname" != "$soname" ]; then
  echo "$library: SONAME is '$actual_soname', expected '$soname'"
  status=1
fi

for binary in "$@"; do
  needed=$(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  if ! printf '%s\n' "$needed" | grep -qx "libQt${major}Core.so.${major}"; then
    echo "$binary: does not need libQt${major}Core.so.${major}"
    status=1
  fi
  foreign=$(printf '%s\n' "$needed" | grep '^libQt[0-9]' | grep -v "^libQt${major}[A-Z]" || true)
  if [ -n "$foreign" ]; then
    echo "$binary: needs Qt libraries of another major version:" $foreign
    status=1
  fi
  echo "$(basename "$binary"): Qt libraries needed:" $(printf '%s\n' "$needed" | grep '^libQt' || true)
done
exit $status
