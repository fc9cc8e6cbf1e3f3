#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""What a serial device server costs the poll loop: transactions per second over loopback
ser2net, raw (tcp://) and with RFC 2217 (rfc2217://), against the pseudo-terminal itself.

The rig of the end-to-end tests (socat pseudo-terminals, tools/sim_slave.py) serves four
holding registers; modbus-ascii-host polls them for a given time on the pseudo-terminal, then
through ser2net (Debian's) in front of the same pseudo-terminal, raw and with RFC 2217, in
rounds so that a change in the machine's load hits every way alike. Prints the accepted
transactions per second of each run, the median of each way, its ratio to the
pseudo-terminal's, and the median response time the tool measured. ser2net sends what the line
brought once it has been quiet for two characters (at least 1 ms, its chardelay); a fourth way,
raw with chardelay off, shows what is the network's and what is that wait.

Usage: MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
    /usr/bin/python3 bench/network_link.py [SECONDS] [ROUNDS]   (default 10, 3)
"""
import json
import os
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from test_e2e import HOST_COMMAND, LINE_SETTINGS  # noqa: E402
from device_server_rig import DeviceServerRig  # noqa: E402

WAYS = ("pseudo-terminal", "tcp", "rfc2217", "tcp, no chardelay")


def run(port, seconds):
    """The summary of one run on port: accepted transactions per second, median response."""
    completed = subprocess.run(
        [*HOST_COMMAND, "--port", port, *LINE_SETTINGS, "--tag", "4x:0:4", "--format", "json",
         "--once-table", "--duration", str(seconds)],
        capture_output=True, text=True, timeout=seconds + 60, check=False)
    summary = next(json.loads(line)["summary"] for line in completed.stdout.splitlines()
                   if line.startswith('{"summary"'))
    return summary["accepted"] / seconds, summary["stations"][0]["responseMs"]["median"]


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 10
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    results = {way: [] for way in WAYS}
    with DeviceServerRig() as rig:
        ports = {"pseudo-terminal": rig.path("master"), "tcp": rig.start_ser2net("tcp"),
                 "rfc2217": rig.start_ser2net("rfc2217"),
                 "tcp, no chardelay": rig.start_ser2net("tcp", chardelay=False)}
        for number in range(rounds):
            for way in WAYS:
                results[way].append(run(ports[way], seconds))
            print(f"round {number + 1}: " + ", ".join(
                f"{way} {results[way][-1][0]:.0f}/s" for way in WAYS), flush=True)
    direct = statistics.median(rate for rate, _ in results["pseudo-terminal"])
    print(f"{'way':<18} {'transactions/s':>15} {'ratio':>6} {'median response ms':>19}")
    for way in WAYS:
        rate = statistics.median(r for r, _ in results[way])
        response = statistics.median(m for _, m in results[way])
        print(f"{way:<18} {rate:>15.0f} {rate / direct:>6.2f} {response:>19.2f}")


if __name__ == "__main__":
    main()
