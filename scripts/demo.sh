#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Demo: builds the driver and modbus-ascii-host, starts a simulated Modbus ASCII slave on one
# end of a pseudo-terminal pair, and lets the host poll it with the example tag file, a few
# writes and a one-shot read, then watches the line for 15 seconds with a silent station added
# and draws the run into the build directory (demo-run.png). Everything it starts is stopped
# again, also on failure.
# Usage: scripts/demo.sh [--qt 5|6] [--serve]   (the Qt flavour, default 5; installs missing
# Debian packages with apt-get first). --serve makes the last run two minutes long and serves
# its live page at http://127.0.0.1:8080/ (DEMO_SERVE_PORT), opened in a browser when there is
# a desktop; Ctrl-C ends it sooner.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
qt_major=5
serve=""
usage() {
  echo "usage: scripts/demo.sh [--qt 5|6] [--serve]" >&2
  exit 2
}
while [ $# -gt 0 ]; do
  case "$1" in
    --qt) [ $# -ge 2 ] || usage; qt_major=$2; shift 2 ;;
    --serve) serve=127.0.0.1:${DEMO_SERVE_PORT:-8080}; shift ;;
    *) usage ;;
  esac
done
case "$qt_major" in
  5 | 6) ;;
  *) echo "demo.sh: --qt takes 5 or 6" >&2; exit 2 ;;
esac
build=${DEMO_BUILD_DIR:-$root/build-demo-qt$qt_major}

build_host() {
  echo "== building the Qt $qt_major flavour in $build"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_QT_MAJOR="$qt_major" \
    -DMODBUS_BUILD_TESTS=OFF -DMODBUS_BUILD_BENCH=OFF -DMODBUS_BUILD_FUZZ=OFF >/dev/null
  cmake --build "$build" -j"$(nproc)" --target modbus-ascii-host >/dev/null
}

work=""
socat_pid=""
slave_pid=""
cleanup() {
  local pid
  for pid in "$slave_pid" "$socat_pid"; do
    if [ -n "$pid" ]; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  [ -z "$work" ] || rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Waits up to five seconds for a command to succeed.
wait_for() {
  local tries=50
  until "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}

start_line_and_slave() {
  work=$(mktemp -d)
  socat "pty,raw,echo=0,link=$work/slave" "pty,raw,echo=0,link=$work/master" &
  socat_pid=$!
  wait_for test -e "$work/master" -a -e "$work/slave" || {
    echo "socat did not create the pseudo-terminal pair" >&2
    return 1
  }
  # Pseudo-terminals refuse 7 data bits with even parity, so this line runs at 8N1. Two
  # temperatures follow waves and the recipe's first register counts the reads.
  /usr/bin/python3 "$root/tools/sim_slave.py" --port "$work/slave" --data-bits 8 --parity N \
    --config "$root/examples/demo_slave.json" --live 1:ir:0:wave:180:320:10 \
    --live 1:ir:1:wave:200:260:6 --live 1:hr:100:counter >"$work/slave.log" 2>&1 &
  slave_pid=$!
  wait_for grep -qs '^ready' "$work/slave.log" || {
    echo "the simulated slave did not start:" >&2
    cat "$work/slave.log" >&2
    return 1
  }
}

"$root/scripts/install-deps.sh" "$qt_major"
build_host
start_line_and_slave
host=("$build/modbus-ascii-host" --port "$work/master" --data-bits 8 --parity none
      --tags "$root/examples/tags.csv")

echo "== the merged read requests for examples/tags.csv"
"${host[@]}" --plan

echo "== two passes, with writes and a one-shot read"
"${host[@]}" --cycles 2 --verbose \
  --write 0x:1=1 --write 4x:3=500 --write 4x_bit:10.1=1 --write 4x_double:20=7654321 \
  --once 4x:200:3

# With --serve the last run lasts longer and serves its live page; a browser opens it when
# there is a desktop to show it on.
last_run=(--duration 15)
if [ -n "$serve" ]; then
  last_run=(--duration 120 --serve "$serve")
  # --watch takes the terminal's screen, which hides the address the tool prints.
  echo "== the live page: http://$serve/"
  if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && command -v xdg-open >/dev/null; then
    (sleep 2 && xdg-open "http://$serve/" >/dev/null 2>&1) &
  fi
fi

echo "== ${last_run[1]} seconds with station 2 added, which never answers; logged and drawn"
# A live table on a terminal (--watch), the plain last table elsewhere. Station 2's requests
# are abandoned, so the tool ends with status 1.
status=0
"${host[@]}" --multi-station --tag 4x:0:1:2 --retries 0 --timeout-ms 100 --quiet-ms 20 \
  "${last_run[@]}" --watch --once-table --log "$build/demo-run.jsonl" || status=$?
[ "$status" -eq 1 ] || exit "$status"
/usr/bin/python3 "$root/tools/plot_run.py" "$build/demo-run.jsonl" -o "$build/demo-run.png" \
  --title "scripts/demo.sh: examples/tags.csv on station 1, station 2 silent"
