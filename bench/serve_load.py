#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The live page's cost to the poll loop, measured end to end, and its memory over time.

The rig of the end-to-end tests (socat pseudo-terminals, tools/sim_slave.py) serves 1,000
holding registers, twenty of them counters; modbus-ascii-host polls all 1,000 as single
variables with --serve. Two measurements, each printed as numbers:

1. Load: runs without a client and runs with 8 clients on /api/events (four reading, four
   connected but never reading), alternated in pairs so that a change in the machine's load
   hits both alike; prints the answered transactions per second of each run, the ratio with
   clients / without of each pair, their median and the ratio of the means.
2. Memory: one long run while clients come and go (event streams opened, read for a moment and
   dropped, pages and states fetched); prints the tool's resident memory (VmRSS) over time,
   next to a run of the same length without clients.

Usage: MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
    /usr/bin/python3 bench/serve_load.py [LOAD_SECONDS] [MEMORY_SECONDS] [PAIRS]
    (default 20, 120, 3)
"""
import json
import os
import statistics
import socket
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from test_e2e import HOST_COMMAND, LINE_SETTINGS, Rig  # noqa: E402

VARIABLES = 1000
COUNTERS = 20
CLIENTS = 8
SLAVE = {"stations": {"1": {"hr": {"0": list(range(VARIABLES))}}},
         "live": [{"station": 1, "table": "hr", "address": a, "kind": "counter"}
                  for a in range(0, VARIABLES, VARIABLES // COUNTERS)]}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def request(port, path):
    connection = socket.create_connection(("127.0.0.1", port), timeout=10)
    connection.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
    return connection


def wait_until_serving(port, process):
    while process.poll() is None:
        try:
            request(port, "/api/state").close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("the tool ended before it served")


def start_host(rig, port, seconds):
    return subprocess.Popen(
        [*HOST_COMMAND, "--port", rig.path("master"), *LINE_SETTINGS, "--tags", rig.path("tags.csv"),
         "--format", "json", "--once-table", "--duration", str(seconds), "--serve", str(port)],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


def transactions_per_second(process, seconds):
    output, _ = process.communicate(timeout=seconds + 60)
    summary = next(json.loads(line)["summary"] for line in output.splitlines()
                   if line.startswith('{"summary"'))
    return summary["accepted"] / seconds


def reader(port, stop):
    with request(port, "/api/events") as connection:
        connection.settimeout(1)
        while not stop.is_set():
            try:
                if not connection.recv(65536):
                    return
            except socket.timeout:
                pass


def load_run(rig, seconds, with_clients):
    port = free_port()
    process = start_host(rig, port, seconds)
    wait_until_serving(port, process)
    stop, threads, stalled = threading.Event(), [], []
    if with_clients:
        for _ in range(CLIENTS // 2):
            threads.append(threading.Thread(target=reader, args=(port, stop)))
            threads[-1].start()
            stalled.append(request(port, "/api/events"))
    try:
        return transactions_per_second(process, seconds)
    finally:
        stop.set()
        for thread in threads:
            thread.join()
        for connection in stalled:
            connection.close()


def resident_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def visitors(port, stop, counter):
    """Clients that come and go: a stream read for a moment, a page, a state."""
    while not stop.is_set():
        try:
            with request(port, "/api/events") as connection:
                connection.settimeout(0.3)
                try:
                    connection.recv(65536)
                except socket.timeout:
                    pass
            for path in ("/", "/api/state"):
                with request(port, path) as connection:
                    connection.recv(65536)
            counter[0] += 3
        except OSError:
            time.sleep(0.05)


def memory_run(rig, seconds, with_clients):
    port = free_port()
    process = start_host(rig, port, seconds)
    wait_until_serving(port, process)
    stop, counter = threading.Event(), [0]
    threads = [threading.Thread(target=visitors, args=(port, stop, counter))
               for _ in range(CLIENTS if with_clients else 0)]
    for thread in threads:
        thread.start()
    samples, start = [], time.monotonic()
    while process.poll() is None and time.monotonic() - start < seconds - 1:
        samples.append((time.monotonic() - start, resident_kib(process.pid)))
        time.sleep(1)
    stop.set()
    for thread in threads:
        thread.join()
    process.communicate(timeout=60)
    return samples, counter[0]


def print_memory(label, samples, connections):
    warm = next(kib for t, kib in samples if t >= 10)
    marks = [samples[int(i * (len(samples) - 1) / 4)] for i in range(5)]
    print(f"{label}: " + ", ".join(f"{t:.0f} s {kib} KiB" for t, kib in marks) +
          f"; after 10 s to the end: {samples[-1][1] - warm:+d} KiB, {connections} connections")


def main():
    load_seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 20
    memory_seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 120
    pairs = int(sys.argv[3]) if len(sys.argv) > 3 else 3
    with Rig(SLAVE) as rig:
        with open(rig.path("tags.csv"), "w", encoding="utf-8") as stream:
            stream.write("name,station,area,address,length\n")
            stream.writelines(f"r{a},1,4x,{a},1\n" for a in range(VARIABLES))
        rates = {False: [], True: []}
        for pair in range(pairs):
            for with_clients in (False, True):
                rates[with_clients].append(load_run(rig, load_seconds, with_clients))
            ratio = rates[True][-1] / rates[False][-1]
            print(f"pair {pair + 1}: no client {rates[False][-1]:.1f} transactions/s, "
                  f"8 clients {rates[True][-1]:.1f} transactions/s, ratio {ratio:.3f}")
        ratios = [with_ / without for without, with_ in zip(rates[False], rates[True])]
        print(f"ratio with 8 clients / without: median of the pairs {statistics.median(ratios):.3f}, "
              f"of the means {statistics.mean(rates[True]) / statistics.mean(rates[False]):.3f}")
        for with_clients in (False, True):
            samples, connections = memory_run(rig, memory_seconds, with_clients)
            print_memory("clients coming and going" if with_clients else "no client",
                         samples, connections)


if __name__ == "__main__":
    main()
