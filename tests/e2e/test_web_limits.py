#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of what a client of the live page (--serve) may send and for how long: a
huge request line or huge headers are refused (414, 431) without the tool's memory growing,
slow senders are cut off when their request is not in after five seconds while the page goes
on answering, a connection beyond the client limit is refused as soon as it is accepted, and
slowhttptest's slow-headers and slow-body attacks (1,000 connections each) neither keep the
page from answering within a second nor slow the polling.

The tool polls one register of the scripted slave (scripted_slave.py) at full speed. Run with
Debian's /usr/bin/python3:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_web_limits.py [TestClass]
Exits with 77 (reported as skipped by CTest) when socat or pymodbus is missing, or, for
SlowAttackTests, slowhttptest.
"""
import csv
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from browser import free_port
from scripted_slave import ScriptedSlave
from test_confirmed import resident_kilobytes
from test_e2e import (HOST_COMMAND, HOST_LAUNCHER, LINE_SETTINGS, SKIP_EXIT_STATUS, E2ECase,
                      HostRun, die_with_parent, prerequisites_missing, stop_process)

START_TIMEOUT_S = 15
MAX_CLIENTS = 8
# The tool's limits on a request's head and the time it has to arrive.
REQUEST_DEADLINE_S = 5
MAX_LINE_BYTES = 8 * 1024
MAX_HEADER_LINES = 100
MIB = 1024 * 1024
# A refused request may leave the allocator's noise behind, not its own size.
MEMORY_SLACK_KB = 2048
# The page answers within this time, attack or not.
PAGE_ANSWER_S = 1.0
ATTACK_S = 20
ATTACK_CONNECTIONS = 1000
KEPT_POLLING_RATE = 0.9
# The attacked runs' slave answers this long after each request.
REPLY_DELAY_S = 0.005


class ServedRun:
    """modbus-ascii-host polling the scripted slave with --serve for a run of seconds; its
    JSON summary once the run has ended."""

    def __init__(self, slave, seconds):
        self.directory = tempfile.mkdtemp(prefix="modbus-web-")
        self.stderr_path = os.path.join(self.directory, "host.err")
        self.command = [*HOST_COMMAND, "--port", slave.port, *LINE_SETTINGS, "--tag", "4x:0",
                        "--duration", str(seconds), "--once-table", "--format", "json",
                        "--serve", str(free_port())]
        self.process = None
        self.port = None

    def __enter__(self):
        with open(self.stderr_path, "w", encoding="utf-8") as stderr:
            self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=stderr,
                                            text=True, preexec_fn=die_with_parent)
        deadline = time.monotonic() + START_TIMEOUT_S
        while self.port is None:
            match = re.search(r"the live page is at http://127\.0\.0\.1:(\d+)/", self.stderr())
            if match:
                self.port = int(match.group(1))
            elif self.process.poll() is not None or time.monotonic() > deadline:
                self.__exit__()
                raise AssertionError("the tool did not serve its page:\n" + self.stderr())
            time.sleep(0.05)
        return self

    def __exit__(self, *exc):
        stop_process(self.process)
        self.process.stdout.close()
        shutil.rmtree(self.directory, ignore_errors=True)

    def stderr(self):
        with open(self.stderr_path, encoding="utf-8") as stream:
            return stream.read()

    def resident_kilobytes(self):
        return resident_kilobytes(self.process, at_s=(0,))[0]

    def cpu_seconds(self):
        """The processor time the tool has used so far, user and system."""
        with open(f"/proc/{self.process.pid}/stat", encoding="utf-8") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def transactions_per_second(self, seconds):
        """Waits for the end of the run; its transactions per second."""
        stdout = self.process.communicate(timeout=seconds + START_TIMEOUT_S)[0]
        run = HostRun(subprocess.CompletedProcess([], self.process.returncode, stdout, ""))
        return run.summary()["transactions"] / seconds


def status_of(response):
    """The status code of a response's first bytes, or None when nothing came."""
    match = re.match(rb"HTTP/1\.1 (\d{3}) ", response)
    return int(match.group(1)) if match else None


def timed_get(port, path):
    """(status, seconds) of one GET; status None when nothing came within 5 s."""
    started = time.monotonic()
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
            connection.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n"
                               "Connection: close\r\n\r\n".encode())
            status = status_of(connection.recv(64))
    except OSError:
        status = None
    return status, time.monotonic() - started


def send_and_read_answer(port, head, filler=b"", count=0, tail=b""):
    """Sends head, then filler count times, then tail from a thread, while reading what the
    server answers. The status it answers (None for none) and whether it then closed."""

    def send(connection):
        try:
            connection.sendall(head)
            for _ in range(count):
                connection.sendall(filler)
            connection.sendall(tail)
        except OSError:
            pass  # the server refused and closed: what the test waits for

    with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
        sender = threading.Thread(target=send, args=(connection,))
        sender.start()
        answer, closed = read_answer(connection)
        try:
            connection.shutdown(socket.SHUT_RDWR)  # a sender still at it stops
        except OSError:
            pass
        sender.join()
    return status_of(answer), closed


def read_answer(connection):
    """The first piece of the server's answer and whether the server closed after it (a
    reset counts: the server closes before it has read all a refused client sent)."""
    try:
        answer = connection.recv(4096)
    except OSError:
        return b"", True
    try:
        return answer, connection.recv(4096) == b""
    except OSError:
        return answer, True


def page_probes(port, until, every_s=0.25):
    """(status, seconds) of GET / and GET /api/state in turn, every every_s until until."""
    probes = []
    while time.monotonic() < until:
        probes.append(timed_get(port, "/" if len(probes) % 2 == 0 else "/api/state"))
        time.sleep(every_s)
    return probes


class RequestSizeTests(E2ECase):
    def refused_with_memory(self, head, filler, count, tail=b"\r\n"):
        """The status, whether the connection was closed, and the tool's memory before the
        request, as the answer came and a second after."""
        with ScriptedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, 60) as host:
            for _ in range(4):  # the workers' memory in place before measuring
                timed_get(host.port, "/")
            before = host.resident_kilobytes()
            status, closed = send_and_read_answer(host.port, head, filler, count, tail)
            answered = host.resident_kilobytes()
            time.sleep(1)
            after = host.resident_kilobytes()
        print(f"\nresident memory {before} kB before, {answered} kB at the answer, "
              f"{after} kB a second later", file=sys.stderr)
        return status, closed, (before, answered, after)

    @unittest.skipIf(HOST_LAUNCHER, "an emulator's own memory would be measured")
    def test_a_request_line_of_256_mib_gets_414_and_costs_no_memory(self):
        status, closed, (before, answered, after) = self.refused_with_memory(
            b"GET /", b"a" * MIB, 256, b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        self.assertEqual((status, closed), (414, True))
        self.assertLess(answered - before, MEMORY_SLACK_KB)
        self.assertLess(after - before, MEMORY_SLACK_KB)

    @unittest.skipIf(HOST_LAUNCHER, "an emulator's own memory would be measured")
    def test_128_mib_of_headers_get_431_and_cost_no_memory(self):
        line = b"X-Filler: " + b"b" * 1012 + b"\r\n"  # 1 KiB
        status, closed, (before, answered, after) = self.refused_with_memory(
            b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n", line * 1024, 128)
        self.assertEqual((status, closed), (431, True))
        self.assertLess(answered - before, MEMORY_SLACK_KB)
        self.assertLess(after - before, MEMORY_SLACK_KB)

    def test_header_lines_are_limited_in_number_and_length(self):
        start = b"GET /api/state HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
        short = b"X: b\r\n"
        # 8 KiB with its CRLF: "X: " and the CRLF take 5 bytes.
        longest = b"X: " + b"b" * (MAX_LINE_BYTES - 5) + b"\r\n"
        cases = {
            # Host and Connection are two of the lines.
            "100 lines": start + short * (MAX_HEADER_LINES - 2) + b"\r\n",
            "101 lines": start + short * (MAX_HEADER_LINES - 1) + b"\r\n",
            "a line of 8 KiB": start + longest + b"\r\n",
            "a line of 8 KiB and a byte": start + b"X" + longest + b"\r\n",
            "a request line of 8 KiB": b"GET /?" + b"a" * (MAX_LINE_BYTES - 17)
                                       + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
            "a request line of 8 KiB and a byte": b"GET /?" + b"a" * (MAX_LINE_BYTES - 16)
                                                  + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
        }
        with ScriptedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, 60) as host:
            statuses = {name: send_and_read_answer(host.port, head)[0]
                        for name, head in cases.items()}
        self.assertEqual(statuses, {"100 lines": 200, "101 lines": 431,
                                    "a line of 8 KiB": 200, "a line of 8 KiB and a byte": 431,
                                    "a request line of 8 KiB": 200,
                                    "a request line of 8 KiB and a byte": 414})


class SlowClientTests(E2ECase):
    def test_slow_senders_are_cut_off_at_the_deadline_while_the_page_answers(self):
        # Twelve clients each send a header line every 3 s and never end their request; one
        # more sends nothing at all. Before, they held every server thread.
        with ScriptedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, 60) as host:
            slow = SlowSenders(host.port, count=12, every_s=3)
            silent = socket.create_connection(("127.0.0.1", host.port), timeout=10)
            with slow, silent:
                probes = page_probes(host.port, until=time.monotonic() + 8)
                silent_answer = silent.recv(4096)
            endings = slow.endings
        print(f"\nslow senders cut off after {min(s for _, s in endings):.2f} to "
              f"{max(s for _, s in endings):.2f} s; page and state answered in at most "
              f"{max(s for _, s in probes):.3f} s", file=sys.stderr)
        self.assertEqual([status for status, _ in endings], [408] * 12)
        self.assertTrue(all(REQUEST_DEADLINE_S - 0.5 < s < REQUEST_DEADLINE_S + 2
                            for _, s in endings), endings)
        self.assertEqual(status_of(silent_answer), 408)
        self.assertEqual({status for status, _ in probes}, {200})
        self.assertLess(max(s for _, s in probes), PAGE_ANSWER_S)

    def test_a_connection_beyond_the_limit_is_refused_as_soon_as_it_is_accepted(self):
        with ScriptedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, 60) as host:
            streams = [socket.create_connection(("127.0.0.1", host.port), timeout=10)
                       for _ in range(MAX_CLIENTS)]
            try:
                for stream in streams:
                    stream.sendall(f"GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
                                   .encode())
                    stream.recv(64)
                started = time.monotonic()
                # The ninth sends nothing: it is refused at accept, not after its request.
                with socket.create_connection(("127.0.0.1", host.port), timeout=10) as ninth:
                    answer = ninth.recv(4096)
                took = time.monotonic() - started
            finally:
                for stream in streams:
                    stream.close()
        self.assertEqual(status_of(answer), 503)
        self.assertIn(b"\r\nRetry-After: 5\r\n", answer)
        self.assertLess(took, PAGE_ANSWER_S)


class SlowSenders:
    """count connections that each send the start of a request and then a header line every
    every_s seconds, never ending it, from a thread; endings holds (status, seconds after
    connecting) of each once the server has closed it."""

    def __init__(self, port, count, every_s):
        self.connections = [socket.create_connection(("127.0.0.1", port), timeout=10)
                            for _ in range(count)]
        self.every_s = every_s
        self.endings = []
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.send)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.stopping.set()
        self.thread.join()
        for connection in self.connections:
            connection.close()

    def send(self):
        started = time.monotonic()
        for connection in self.connections:
            connection.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            connection.setblocking(False)
        open_ones, answers, line = list(self.connections), {}, 0
        while open_ones and not self.stopping.wait(0.05):
            if time.monotonic() > started + self.every_s * (line + 1):
                line += 1
                for connection in open_ones:
                    try:
                        connection.sendall(f"X-Line-{line}: slow\r\n".encode())
                    except OSError:
                        pass
            for connection in list(open_ones):
                try:
                    piece = connection.recv(4096)
                except BlockingIOError:
                    continue
                except OSError:
                    piece = b""
                answers[connection] = answers.get(connection, b"") + piece
                if not piece:
                    open_ones.remove(connection)
                    self.endings.append((status_of(answers[connection]),
                                         time.monotonic() - started))


class PacedSlave(ScriptedSlave):
    """The scripted slave answering each request REPLY_DELAY_S after it came, as a slave on a
    line does (a frame alone takes 20 ms at 9600 baud). The polling rate then depends on the
    tool, not on the share of the shared machine the test gets: at full speed it varies by a
    quarter from run to run there."""

    def answer(self, frame):
        time.sleep(REPLY_DELAY_S)
        return super().answer(frame)


class SlowAttackTests(E2ECase):
    """slowhttptest with 1,000 connections against the page while the tool polls: the page
    answers within a second throughout, and the polling keeps its pace."""

    PROBING_S = ATTACK_S - 2

    @classmethod
    def setUpClass(cls):
        with PacedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, ATTACK_S) as host:
            time.sleep(cls.PROBING_S)
            cls.quiet_cpu = host.cpu_seconds()
            cls.quiet_rate = host.transactions_per_second(ATTACK_S)

    def attacked(self, mode):
        """The page's answers during the attack, the polling rate and the most connections
        slowhttptest had made at once."""
        with PacedSlave(holding={1: {0: 7}}) as slave, ServedRun(slave, ATTACK_S) as host, \
                tempfile.TemporaryDirectory() as directory:
            attack = subprocess.Popen(
                ["slowhttptest", mode, "-c", str(ATTACK_CONNECTIONS), "-r", "250", "-i", "3",
                 "-l", str(ATTACK_S), "-p", "3", "-u", f"http://127.0.0.1:{host.port}/",
                 "-g", "-o", os.path.join(directory, "attack")],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=die_with_parent)
            try:
                probes = page_probes(host.port, until=time.monotonic() + self.PROBING_S)
                cpu = host.cpu_seconds()
                rate = host.transactions_per_second(ATTACK_S)
            finally:
                stop_process(attack)
            with open(os.path.join(directory, "attack.csv"), encoding="utf-8") as stream:
                seconds = list(csv.DictReader(stream))
        made = max(int(s["Closed"]) + int(s["Pending"]) + int(s["Connected"]) for s in seconds)
        print(f"\n{mode}: {made} connections; page and state: {len(probes)} answers, "
              f"{sorted({status for status, _ in probes}, key=str)}, "
              f"at most {max(s for _, s in probes):.3f} s; polling {rate:.1f} transactions "
              f"a second against {self.quiet_rate:.1f} without the attack "
              f"({rate / self.quiet_rate:.3f}); the tool's processor time {cpu:.2f} s "
              f"against {self.quiet_cpu:.2f} s", file=sys.stderr)
        return probes, rate, made

    def check(self, mode):
        probes, rate, made = self.attacked(mode)
        # slowhttptest counts once a second, and stops without a last count once none of its
        # connections is left open: the last connections may go uncounted.
        self.assertGreaterEqual(made, ATTACK_CONNECTIONS * 0.8)
        self.assertEqual({status for status, _ in probes}, {200})
        self.assertLess(max(s for _, s in probes), PAGE_ANSWER_S)
        self.assertGreaterEqual(rate, KEPT_POLLING_RATE * self.quiet_rate)

    def test_slow_headers(self):
        self.check("-H")

    def test_slow_body(self):
        self.check("-B")


if __name__ == "__main__":
    missing = prerequisites_missing()
    selected = sys.argv[1:]
    if not missing and (not selected or any(n.startswith("SlowAttackTests") for n in selected)) \
            and not shutil.which("slowhttptest"):
        missing = "slowhttptest is not installed"
    if missing:
        print(f"skipped: {missing}")
        sys.exit(SKIP_EXIT_STATUS)
    unittest.main(verbosity=2)
