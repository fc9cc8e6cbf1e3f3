#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Lints the library (src/, include/) and the host tool (tools/host/) with clang-tidy (checks in
# .clang-tidy) and cppcheck (suppressions in .cppcheck-suppressions), both reading the compile
# database of a build tree: the project's own sources only, the headers through them. Exits 0
# only when neither tool reports anything.
# Usage: scripts/lint.sh [BUILD_DIR]   (default build-qt5, or build-qt6 with MODBUS_QT_MAJOR=6
# in front; configured here when needed, never built: only the generated headers are made)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
major=${MODBUS_QT_MAJOR:-5}
build=${1:-build-qt$major}
scripts/install-deps.sh "$major" clang-tidy cppcheck python3
jobs=$(nproc)

# Configuring only writes the compile database: a tree already built stays built, and keeps
# the flavour it was configured with.
flavour=()
[ -f "$build/CMakeCache.txt" ] || flavour=(-DMODBUS_QT_MAJOR="$major")
cmake -S . -B "$build" "${flavour[@]}" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
cmake --build "$build" --target live_page_header >/dev/null
database="$build/lint/compile_commands.json"
mkdir -p "$build/lint/cppcheck"
python3 - "$build/compile_commands.json" "$database" "$root" <<'EOF'
import json, re, sys
source, target, root = sys.argv[1:]
own = re.compile(re.escape(root) + r"/(src|tools/host)/.+\.cpp$")
entries = [e for e in json.load(open(source)) if own.match(e["file"])]
json.dump(entries, open(target, "w"), indent=1)
EOF

status=0
started=$SECONDS
echo "clang-tidy ($(clang-tidy --version | grep -o 'version [0-9.]*'))"
python3 -c 'import json, sys; print("\n".join(e["file"] for e in json.load(open(sys.argv[1]))))' \
  "$database" |
  xargs -P"$jobs" -n1 clang-tidy -p "$build/lint" --quiet --use-color=false \
    --extra-arg=-Wno-unknown-warning-option \
    --header-filter="^$root/(src|include|tools/host)/" 2> >(grep -v ' warnings\? generated\.$' >&2) ||
  status=1
echo "clang-tidy: $((SECONDS - started)) s"

started=$SECONDS
echo "cppcheck ($(cppcheck --version))"
cppcheck --project="$database" --cppcheck-build-dir="$build/lint/cppcheck" -j"$jobs" --quiet \
  --std=c++17 --library=qt --enable=warning,style,performance,portability \
  --suppressions-list=.cppcheck-suppressions --inline-suppr --error-exitcode=1 || status=1
echo "cppcheck: $((SECONDS - started)) s"

if [ "$status" -eq 0 ]; then echo "lint: clean"; else echo "lint: findings above" >&2; fi
exit "$status"
