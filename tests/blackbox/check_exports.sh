#!/bin/sh
# SPDX-License-Identifier: MIT
# Compares the dynamic symbol table of the built library with the expected export list.
set -eu
library=$1
expected=$2
actual=$(nm -D --defined-only "$library" | awk '{print $NF}' | sort)
wanted=$(grep -v '^#' "$expected" | sed '/^$/d' | sort)
if [ "$actual" != "$wanted" ]; then
  echo "exported symbols differ from $expected:"
  printf '%s\n' "$wanted" > /tmp/exports.wanted.$$
  printf '%s\n' "$actual" | diff /tmp/exports.wanted.$$ - || true
  rm -f /tmp/exports.wanted.$$
  exit 1
fi
echo "exports match: $(printf '%s\n' "$actual" | wc -l) symbols"
