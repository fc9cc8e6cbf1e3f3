#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""modbus-ascii-host under a service manager: the notify protocol of systemd, read from a Unix
datagram socket of the test's own (NOTIFY_SOCKET, WATCHDOG_USEC, WATCHDOG_PID), while the tool
polls the pymodbus slave: READY=1 after the first pass, WATCHDOG=1 pings while the poll loop
turns and none once it stops turning, STATUS= with the passes, STOPPING=1 on SIGTERM.

    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_service.py
"""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from test_e2e import HOST_COMMAND, LINE_SETTINGS, E2ECase, Rig, die_with_parent, \
    prerequisites_missing, stop_process

SLAVE = {"stations": {"1": {"hr": {"0": [7, 8]}}}}
WATCHDOG_USEC = 300_000  # pings every 150 ms
TAG = ["--tag", "4x:0:2"]


class NotifySocket:
    """A datagram socket bound where NOTIFY_SOCKET points: every message with its time."""

    def __init__(self):
        self.directory = tempfile.TemporaryDirectory(prefix="modbus-notify-")
        self.path = os.path.join(self.directory.name, "notify")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        self.socket.settimeout(0.05)
        self.messages = []  # (seconds since start, {key: value})

    def collect(self, seconds):
        started = time.monotonic()
        deadline = started + seconds
        while time.monotonic() < deadline:
            try:
                data = self.socket.recv(4096)
            except socket.timeout:
                continue
            fields = dict(line.split("=", 1) for line in data.decode().splitlines())
            self.messages.append((time.monotonic(), fields))

    def collect_until(self, key, timeout_s=15):
        """Collects until a message with key comes (the tool may start slowly, under qemu)."""
        deadline = time.monotonic() + timeout_s
        while not self.times_of(key) and time.monotonic() < deadline:
            self.collect(0.05)
        return self.times_of(key)[0] if self.times_of(key) else None

    def times_of(self, key):
        return [when for when, fields in self.messages if key in fields]

    def close(self):
        self.socket.close()
        self.directory.cleanup()


class ServiceTests(E2ECase):
    def setUp(self):
        self.notify = NotifySocket()
        self.addCleanup(self.notify.close)

    def start_host(self, rig, *arguments, environment=None):
        env = dict(os.environ, NOTIFY_SOCKET=self.notify.path, WATCHDOG_USEC=str(WATCHDOG_USEC))
        env.update(environment or {})
        process = subprocess.Popen(
            [*HOST_COMMAND, "--format", "json", "--port", rig.path("master"), *LINE_SETTINGS,
             *arguments], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env=env,
            preexec_fn=die_with_parent)
        self.addCleanup(stop_process, process)
        return process

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        self.notify.collect(1.0)
        self.assertEqual(process.wait(timeout=5), 0, process.stderr.read())

    def test_ready_pings_status_and_stopping_as_systemd_expects(self):
        with Rig(SLAVE) as rig:
            process = self.start_host(rig, *TAG)
            self.assertIsNotNone(self.notify.collect_until("READY"))
            self.notify.collect(2.0)
            self.stop(process)
        # Pings may come before it (the loop turns from its start), as systemd allows.
        ready = [fields for _, fields in self.notify.messages if "READY" in fields]
        self.assertEqual(len(ready), 1, self.notify.messages[:3])
        self.assertEqual(ready[0]["READY"], "1")
        self.assertRegex(ready[0]["STATUS"],
                         r"^pass 1, 100\.0 % answered, 0 stations set aside$")
        pings = self.notify.times_of("WATCHDOG")
        self.assertGreaterEqual(len(pings), 8, pings)
        gaps = [b - a for a, b in zip(pings, pings[1:])]
        self.assertLess(max(gaps), 0.5, gaps)  # half of WATCHDOG_USEC, and some slack
        statuses = [f["STATUS"] for _, f in self.notify.messages if "STATUS" in f]
        self.assertGreaterEqual(len(statuses), 2, statuses)
        self.assertRegex(statuses[-1], r"^pass [0-9]+, 100\.0 % answered, 0 stations set aside$")
        self.assertEqual(self.notify.messages[-1][1], {"STOPPING": "1"})

    def test_a_loop_that_stops_turning_stops_the_pings(self):
        with Rig(SLAVE) as rig:
            process = self.start_host(rig, *TAG,
                                      environment={"MODBUS_HOST_TEST_STALL_AFTER_PASS": "3"})
            ready = self.notify.collect_until("READY")
            self.assertIsNotNone(ready)
            self.notify.collect(2.5)
            self.assertIsNone(process.poll())
            pings = self.notify.times_of("WATCHDOG")
            self.stop(process)
        self.assertEqual(len(self.notify.times_of("READY")), 1)
        # Passes 2 and 3 follow pass 1 within a fraction of a second; then no ping for the last
        # 1.75 s, where a loop that turned would have sent about ten.
        self.assertTrue(all(when < ready + 0.75 for when in pings), (ready, pings))
        self.assertEqual(self.notify.messages[-1][1], {"STOPPING": "1"})

    def test_pings_are_for_the_process_that_watchdog_pid_names(self):
        with Rig(SLAVE) as rig:
            process = self.start_host(rig, *TAG, environment={"WATCHDOG_PID": "1"})
            self.assertIsNotNone(self.notify.collect_until("READY"))
            self.notify.collect(1.0)
            self.stop(process)
        self.assertEqual(self.notify.times_of("WATCHDOG"), [])
        self.assertEqual(len(self.notify.times_of("READY")), 1)

    def test_waiting_for_the_port_is_ready_at_once_says_so_and_pings(self):
        # A wait between attempts longer than the watchdog's time still pings.
        missing = os.path.join(self.notify.directory.name, "ttyMISSING")
        env = dict(os.environ, NOTIFY_SOCKET=self.notify.path, WATCHDOG_USEC=str(WATCHDOG_USEC))
        process = subprocess.Popen(
            [*HOST_COMMAND, "--port", missing, "--wait-for-port", "--reopen-ms", "5000", *TAG],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env,
            preexec_fn=die_with_parent)
        self.addCleanup(stop_process, process)
        self.assertIsNotNone(self.notify.collect_until("READY"))
        self.notify.collect(1.5)
        stop_process(process)
        first = self.notify.messages[0][1]
        self.assertEqual(first, {"READY": "1", "STATUS": f"waiting for {missing}"})
        self.assertGreaterEqual(len(self.notify.times_of("WATCHDOG")), 5)


if __name__ == "__main__":
    if prerequisites_missing():
        sys.exit(77)
    unittest.main()
