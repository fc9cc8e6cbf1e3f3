#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of --port tcp:// and rfc2217://: modbus-ascii-host through a real ser2net
(Debian's) in front of the simulated slave's pseudo-terminal, as through a serial device server.

Each test starts ser2net in the foreground with a configuration file of its own, on a free
loopback port, raw (accepter tcp) or with RFC 2217 (accepter telnet(rfc2217),tcp). What the
tool shows over the network must be what it shows on the pseudo-terminal itself, however the
network cuts the bytes; a device server that goes away is a lost port that comes back. The
relays are tests/e2e/tcp_relay.py.

Run as test_e2e.py is run, with the suite as the argument:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_network_link.py TableTests
Exits with 77 (skipped) when ser2net, socat or pymodbus is missing.
"""
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import termios
import threading
import time

from device_server_rig import (READY_TIMEOUT_S, RUN_TIMEOUT_S, DeviceServerRig, free_port)
from test_e2e import (HOST_COMMAND, LINE_SETTINGS, SKIP_EXIT_STATUS, E2ECase, HostRun,
                      die_with_parent, prerequisites_missing, run_host, run_tests)

POLLED = ["--tag", "4x:0:4", "--tag", "0x:0:8", "--tag", "3x:10:3"]
WRITES = ["--write", "4x:20=7,8", "--write", "0x:3=1", "--write", "4x_bit:2.0=0"]
ONCE = ["--once", "4x:20:2"]
EXPECTED = {("4x:0", 1): [0x1234, 0x5678, 0xFF00, 0x00FF], ("0x:0", 1): [1, 0, 1, 1, 0, 0, 1, 0],
            ("3x:10", 1): [100, 101, 102], ("4x:20", 1): [7, 8]}
# Keep-alive notices a dead connection within 10 s (tools/host/line/tcp_device.h); the test
# allows for a loaded machine.
KEEP_ALIVE_S = 10
KEEP_ALIVE_SLACK_S = 4


def write_outcomes(run):
    return [(o["write"]["text"], o["write"]["outcome"]) for o in run.objects if "write" in o]


class TableTests(E2ECase):
    """The same tables over the network as on the pseudo-terminal."""

    def assert_same_run(self, run, direct):
        self.assertEqual(run.status, 0, run.stderr)
        self.assertEqual(run.last_values(), direct.last_values())
        self.assertEqual(write_outcomes(run), write_outcomes(direct))
        self.assertEqual(run.summary()["abandoned"], {})

    def test_polling_writes_and_a_one_shot_read_give_the_tables_of_the_pseudo_terminal(self):
        arguments = ["--cycles", "3", *POLLED, *WRITES, *ONCE]
        with DeviceServerRig() as rig:
            direct = rig.host(*arguments)
            raw = rig.network_host(rig.start_ser2net("tcp"), *arguments, "--verbose")
            telnet = rig.network_host(rig.start_ser2net("rfc2217"), *arguments, "--verbose")
            store = rig.datastore()[1]
        self.assertEqual(direct.status, 0, direct.stderr)
        self.assertEqual(direct.last_values(), EXPECTED)
        self.assertEqual(write_outcomes(direct), [("4x:20=7,8", "done"), ("0x:3=1", "done"),
                                                  ("4x_bit:2.0=0", "done")])
        self.assert_same_run(raw, direct)
        self.assert_same_run(telnet, direct)
        self.assertEqual(store["hr"][20], 7)
        self.assertIn("a raw stream: the device server keeps its own line settings", raw.stderr)
        self.assertIn("the device server set 9600 baud, data bits 8, parity none, stop bits 1 "
                      "(RFC 2217)", telnet.stderr)

    def test_the_table_summary_counts_lost_connections_not_serial_ports(self):
        with DeviceServerRig() as rig:
            completed = subprocess.run(
                [*HOST_COMMAND, "--format", "table", "--port", rig.start_ser2net("tcp"),
                 *POLLED, "--cycles", "1"], capture_output=True, text=True,
                timeout=RUN_TIMEOUT_S, preexec_fn=die_with_parent)
        self.assertEqual(completed.returncode, 0, completed.stderr)
        self.assertIn("\nconnection lost: 0 times, 0 ms away\n", completed.stdout)
        self.assertNotIn("serial port lost", completed.stdout)

    def test_rfc2217_puts_the_line_settings_on_the_device_servers_port(self):
        with DeviceServerRig() as rig:
            url = rig.start_ser2net("rfc2217")
            host = subprocess.Popen(
                [*HOST_COMMAND, "--format", "json", "--port", url, "--baud", "19200",
                 "--data-bits", "8", "--parity", "odd", "--stop-bits", "2", *POLLED,
                 "--duration", "3", "--once-table"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                preexec_fn=die_with_parent)
            # Read back while the connection is open: ser2net puts the port back when it ends.
            # A pseudo-terminal keeps the speed, PARODD and CSTOPB; it clears PARENB itself.
            deadline = time.monotonic() + RUN_TIMEOUT_S / 4
            descriptor = os.open(rig.path("master"), os.O_RDWR | os.O_NOCTTY)
            try:
                while time.monotonic() < deadline:
                    _, _, cflag, _, ispeed, ospeed, _ = termios.tcgetattr(descriptor)
                    seen = (ispeed, ospeed, bool(cflag & termios.PARODD),
                            bool(cflag & termios.CSTOPB))
                    if seen == (termios.B19200, termios.B19200, True, True):
                        break
                    time.sleep(0.05)
            finally:
                os.close(descriptor)
            stdout, stderr = host.communicate(timeout=RUN_TIMEOUT_S)
        self.assertEqual(seen, (termios.B19200, termios.B19200, True, True))
        self.assertEqual(host.returncode, 0, stderr)
        self.assertEqual(HostRun(subprocess.CompletedProcess([], 0, stdout, stderr))
                         .last_values()[("4x:0", 1)], EXPECTED[("4x:0", 1)])

    def test_frames_cut_at_random_points_and_run_together_change_nothing(self):
        arguments = ["--cycles", "20", *POLLED, *WRITES, *ONCE]
        with DeviceServerRig() as rig:
            direct = rig.host(*arguments)
            runs = []
            for mode, seed in (("rfc2217", "8"), ("tcp", "9")):
                relay, address = rig.relay("--to", rig.start_ser2net(mode)[len(mode) + 3:],
                                           "--split", seed)
                runs.append(rig.network_host(f"{mode}://{address}", *arguments))
                relay.terminate()
                counts = json.loads(relay.communicate(timeout=READY_TIMEOUT_S)[0])
                # Every reply came in pieces: more segments than frames.
                self.assertGreater(counts["segments"], 3 * counts["line_feeds"], counts)
        for run in runs:
            self.assert_same_run(run, direct)

    def test_a_scan_over_the_network_finds_what_it_finds_on_the_line(self):
        with DeviceServerRig() as rig:
            direct = rig.host("--scan", "1-3", "--timeout-ms", "200")
            telnet = rig.network_host(rig.start_ser2net("rfc2217"), "--scan", "1-3",
                                      "--timeout-ms", "200")
        for run in (direct, telnet):
            self.assertEqual([(o["station"], o["status"], o.get("value")) for o in run.objects],
                             [(1, "answered", 0x1234), (2, "silent", None), (3, "silent", None)])


class TimingTests(E2ECase):
    """A link that delays, and a connection that goes silent."""

    def test_a_slow_link_needs_its_latency_stated(self):
        arguments = ["--tag", "4x:0:4", "--timeout-ms", "60", "--retries", "0", "--cycles", "5"]
        with DeviceServerRig() as rig:
            _, address = rig.relay("--to", rig.start_ser2net("tcp")[6:], "--delay-ms", "40")
            stated = rig.network_host(f"tcp://{address}", "--link-latency-ms", "50", *arguments)
            unstated = rig.network_host(f"tcp://{address}", "--link-latency-ms", "0", *arguments)
        self.assertEqual(stated.status, 0, stated.stderr)
        self.assertEqual(stated.summary()["accepted"], 5)
        self.assertEqual(stated.last_values(), {("4x:0", 1): EXPECTED[("4x:0", 1)]})
        # 60 ms for a reply 80 ms away: every request times out, and the replies come late.
        self.assertEqual(unstated.status, 1, unstated.stderr)
        self.assertEqual(unstated.summary()["stations"][0]["failures"]["noReply"], 5)
        self.assertGreater(unstated.summary()["lateReplies"]["count"], 0)

    def test_a_connection_gone_silent_is_lost_within_the_keep_alive_time(self):
        """A peer that keeps the socket open answers keep-alive probes from its kernel, so the
        silence keep-alive exists for is one of the network: a device server switched off, a
        cable cut. Here the relay (a device server of its own on the slave's pseudo-terminal)
        and the tool share a network namespace whose loopback then drops every packet: no FIN,
        no reset, nothing."""
        if os.geteuid() != 0 or not all(map(shutil.which, ("unshare", "nsenter", "ip", "tc"))):
            self.skipTest("needs root, unshare, nsenter, ip and tc for a network namespace")
        with DeviceServerRig() as rig:
            namespace = rig.private_network_namespace()
            subprocess.run([*namespace, "ip", "link", "set", "lo", "up"], check=True)
            _, address = rig.relay("--pty", rig.path("master"), namespace=namespace)
            host = rig.spawn([*namespace, *HOST_COMMAND, "--format", "json", "--once-table",
                              "--port", f"tcp://{address}", *LINE_SETTINGS, "--tag", "4x:0:4",
                              "--duration", str(KEEP_ALIVE_S + KEEP_ALIVE_SLACK_S + 4)],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            time.sleep(2)
            silenced = time.monotonic()
            subprocess.run([*namespace, "tc", "qdisc", "add", "dev", "lo", "root", "pfifo",
                            "limit", "0"], check=True)
            lost = None
            while lost is None and time.monotonic() - silenced < KEEP_ALIVE_S + KEEP_ALIVE_SLACK_S:
                line = host.stderr.readline()
                if " lost (" in line:
                    lost = time.monotonic() - silenced, line
            stdout, stderr = host.communicate(timeout=RUN_TIMEOUT_S)
        self.assertIsNotNone(lost, stderr)
        print(f"\nlost {lost[0]:.1f} s after the network went silent: {lost[1].strip()}",
              file=sys.stderr)
        self.assertRegex(lost[1], r"connection tcp://127\.0\.0\.1:\d+ lost \(.+\); reopening "
                                  r"every 1000 ms")
        summary = HostRun(subprocess.CompletedProcess([], 0, stdout, stderr)).summary()
        self.assertEqual(summary["portLosses"], 1)


class LossTests(E2ECase):
    """A device server that goes away, or is busy, is a port that goes away."""

    def test_a_device_server_started_again_is_a_lost_port_that_comes_back(self):
        writes = [a for i in range(100) for a in ("--write", f"4x:{100 + i}={1000 + i}")]
        with DeviceServerRig() as rig:
            url = rig.start_ser2net("tcp")
            port = int(url.rsplit(":", 1)[1])
            log = rig.path("run.jsonl")
            host = subprocess.Popen(
                [*HOST_COMMAND, "--format", "json", "--once-table", "--port", url, "--log", log,
                 *POLLED, "--cycles", "30", *writes], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                text=True, preexec_fn=die_with_parent)
            self.wait_for_transactions(log, 20)
            rig.kill_ser2net()
            time.sleep(1.5)  # writes queued meanwhile wait for the port
            rig.start_ser2net("tcp", port)
            stdout, stderr = host.communicate(timeout=RUN_TIMEOUT_S)
            store = rig.datastore()[1]
            with open(log, encoding="utf-8") as stream:
                records = [json.loads(line) for line in stream]
        run = HostRun(subprocess.CompletedProcess([], host.returncode, stdout, stderr))
        self.assertIn(run.status, (0, 1), stderr)
        self.assertGreaterEqual(run.summary()["portLosses"], 1)
        self.assertRegex(stderr, r"connection tcp://127\.0\.0\.1:\d+ lost \((the server closed "
                                 r"the connection|Connection reset by peer)\); reopening every "
                                 r"1000 ms")
        self.assertRegex(stderr, r"connection tcp://127\.0\.0\.1:\d+ back after \d+ ms")
        self.assertEqual([r["state"][:4] for r in records if r["record"] == "port"][:2],
                         ["lost", "back"])
        self.assertEqual(run.last_values(), {k: v for k, v in EXPECTED.items() if k[0] != "4x:20"})
        outcomes = write_outcomes(run)
        # At most the write in flight when the server went is unconfirmed; every other is
        # done and in the slave, the last ones queued while the port was away.
        self.assertLessEqual(sum(outcome != "done" for _, outcome in outcomes), 1, outcomes)
        self.assertEqual(outcomes[-1][1], "done")
        for i, (_, outcome) in enumerate(outcomes):
            if outcome == "done":
                self.assertEqual(store["hr"][100 + i], 1000 + i)

    def wait_for_transactions(self, log, count):
        deadline = time.monotonic() + READY_TIMEOUT_S
        while time.monotonic() < deadline:
            if os.path.exists(log):
                with open(log, encoding="utf-8") as stream:
                    if stream.read().count('"record":"transaction"') >= count:
                        return
            time.sleep(0.01)
        self.fail("the tool did not start its transactions")

    def test_a_busy_server_is_a_failed_open_and_waited_for(self):
        with DeviceServerRig() as rig:
            url = rig.start_ser2net("tcp")
            holder = socket.create_connection(("127.0.0.1", int(url.rsplit(":", 1)[1])))
            try:
                time.sleep(0.2)
                busy = rig.network_host(url, "--tag", "4x:0:4", "--cycles", "1")
                host = subprocess.Popen(
                    [*HOST_COMMAND, "--format", "json", "--port", url, "--tag", "4x:0:4",
                     "--cycles", "1", "--wait-for-port", "--reopen-ms", "300"],
                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                    preexec_fn=die_with_parent)
                time.sleep(1)
            finally:
                holder.close()
            stdout, stderr = host.communicate(timeout=RUN_TIMEOUT_S)
        self.assertEqual(busy.status, 2)
        self.assertEqual(busy.stderr, f"modbus-ascii-host: --port {url}: the server closed the "
                                      f"connection at once (it said: Port already in use)\n")
        self.assertEqual(host.returncode, 0, stderr)
        self.assertIn("(it said: Port already in use); waiting for it", stderr)
        self.assertIn('"values":[4660,22136,65280,255]', stdout)


class InputTests(E2ECase):
    """Bad --port values, and a server that refuses a setting."""

    def assert_refused(self, port, message, *arguments, launcher=()):
        started = time.monotonic()
        completed = subprocess.run([*launcher, *HOST_COMMAND, "--port", port, "--tag", "4x:0",
                                    "--cycles", "1", *arguments], capture_output=True, text=True,
                                   timeout=RUN_TIMEOUT_S, preexec_fn=die_with_parent)
        self.assertLess(time.monotonic() - started, 5, port)
        self.assertEqual(completed.returncode, 2, completed.stderr)
        self.assertEqual(completed.stderr.count("\n"), 1, completed.stderr)
        self.assertRegex(completed.stderr, f"^modbus-ascii-host: --port {message}")

    def test_bad_port_values_are_refused_at_once_with_the_reason(self):
        closed = free_port()
        for port, message in (
                ("tcp://127.0.0.1", r"tcp://127\.0\.0\.1: no TCP port \(HOST:PORT\)"),
                ("tcp://127.0.0.1:70000", r"tcp://127\.0\.0\.1:70000: TCP port 70000 is not from "
                                          r"1 to 65535"),
                ("udp://127.0.0.1:5020", r"udp://127\.0\.0\.1:5020: unknown scheme 'udp://'"),
                (f"tcp://127.0.0.1:{closed}", rf"tcp://127\.0\.0\.1:{closed}: cannot connect: "
                                              r"Connection refused"),
                (f"rfc2217://[::1]:{closed}", rf"rfc2217://\[::1\]:{closed}: cannot connect: ")):
            self.assert_refused(port, message)

    def test_rs485_is_for_a_serial_port_of_this_machine(self):
        run = run_host("--port", "tcp://127.0.0.1:7000", "--rs485", "--tag", "4x:0")
        self.assertEqual(run.status, 2)
        self.assertIn("--rs485 needs a serial port of this machine", run.stderr)

    def test_a_name_that_does_not_resolve(self):
        """In a network namespace of its own, so that the lookup asks no name server."""
        if os.geteuid() != 0 or not shutil.which("unshare"):
            self.skipTest("needs root and unshare for a network namespace")
        self.assert_refused("tcp://no-such-device-server.invalid:4001",
                            r"tcp://no-such-device-server\.invalid:4001: cannot resolve "
                            r"no-such-device-server\.invalid: ", launcher=["unshare", "-n"])

    def test_a_setting_the_server_refuses_is_named(self):
        server = RefusingServer()
        try:
            self.assert_refused(f"rfc2217://127.0.0.1:{server.port}",
                                rf"rfc2217://127\.0\.0\.1:{server.port}: the server refused "
                                r"parity even \(it answered odd\)$")
        finally:
            server.close()


class RefusingServer:
    """An RFC 2217 server that agrees to COM-PORT and answers every setting as asked, except
    parity, which it answers odd."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        connection, _ = self.listener.accept()
        with connection:
            connection.sendall(bytes([0xFF, 0xFD, 0x2C]))  # DO COM-PORT-OPTION
            received = b""
            connection.settimeout(READY_TIMEOUT_S)
            while received.count(b"\xff\xf0") < 4:
                data = connection.recv(256)
                if not data:
                    return
                received += data
            for command, value in re.findall(rb"\xff\xfa\x2c([\x01-\x04])(.*?)\xff\xf0", received,
                                             re.DOTALL):
                value = b"\x02" if command == b"\x03" else value
                connection.sendall(b"\xff\xfa\x2c" + bytes([command[0] + 100]) + value +
                                   b"\xff\xf0")
            connection.recv(256)

    def close(self):
        self.listener.close()
        self.thread.join(READY_TIMEOUT_S)


def missing():
    if not shutil.which("ser2net"):
        return "ser2net is not installed"
    return prerequisites_missing()


if __name__ == "__main__":
    if missing():
        print(f"skipped: {missing()}")
        sys.exit(SKIP_EXIT_STATUS)
    run_tests()
