#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures the host tool's resident memory over a run at full speed: modbus-ascii-host polls
one register of the scripted slave (tests/e2e/scripted_slave.py) on a pseudo-terminal, and
VmRSS is read from /proc every few seconds.

    scripts/host-memory.py build/modbus-ascii-host [SECONDS] [--multi-station ...]

Prints one line per sample (seconds, kB) and the growth after the first sample.
"""
import json
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from scripted_slave import ScriptedSlave  # noqa: E402

SAMPLE_EVERY_S = 5
FIRST_SAMPLE_S = 5


def resident_kilobytes(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        return int(next(l for l in status if l.startswith("VmRSS:")).split()[1])


def main(argv):
    host = argv[0]
    seconds = int(argv[1]) if len(argv) > 1 else 60
    with ScriptedSlave(holding={1: {0: 7}}) as slave:
        process = subprocess.Popen(
            [host, "--port", slave.port, "--data-bits", "8", "--parity", "none",
             "--tag", "4x:0", "--duration", str(seconds), "--once-table", "--format", "json",
             *argv[2:]], stdout=subprocess.PIPE, text=True)
        started = time.monotonic()
        samples = []
        for moment in range(FIRST_SAMPLE_S, seconds, SAMPLE_EVERY_S):
            time.sleep(max(0.0, started + moment - time.monotonic()))
            samples.append((moment, resident_kilobytes(process.pid)))
            print(f"{moment:4d} s {samples[-1][1]:8d} kB", flush=True)
        output = process.communicate()[0]
    summary = next(json.loads(l)["summary"] for l in output.splitlines() if '"summary"' in l)
    transactions = summary["transactions"]
    print(f"growth after {samples[0][0]} s: {samples[-1][1] - samples[0][1]} kB over "
          f"{samples[-1][0] - samples[0][0]} s, {transactions} transactions")


if __name__ == "__main__":
    main(sys.argv[1:])
