#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of the live page (--serve): the page in Debian's headless chromium against
the simulated slave with live values, every refusal with plain HTTP requests, and bad input.

They use the rig of test_e2e.py (socat pseudo-terminals and the simulated slave). Run with
Debian's /usr/bin/python3:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_live_page.py [TestClass]
The browser tests save their screenshots in MODBUS_ARTIFACTS (default: the current
directory). Exits with 77 (reported as skipped by CTest) when socat or pymodbus is missing,
or, for BrowserTests, chromium or chromium-driver.
"""
import http.client
import json
import math
import os
import re
import select
import shutil
import socket
import subprocess
import sys
import time
import unittest

import browser
from test_e2e import (HOST_COMMAND, LINE_SETTINGS, SKIP_EXIT_STATUS, E2ECase, Rig,
                      die_with_parent, prerequisites_missing, stop_process)

FAST_LINE = ["--timeout-ms", "300", "--char-timeout-ms", "200", "--quiet-ms", "50"]
ARTIFACTS = os.environ.get("MODBUS_ARTIFACTS", os.getcwd())
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
START_TIMEOUT_S = 15
MAX_CLIENTS = 8
# Station 1 answers with a constant, a counter and a wave; station 2 never answers.
TAGS = """name,station,area,address,length
setpoint,1,4x,0,1
counter,1,4x,1,1
temperature,1,3x,0,1
remote_level,2,4x,0,1
"""
SLAVE = {"stations": {"1": {"hr": {"0": [4660]}, "ir": {"0": [200]}}}, "silent": [2],
         "live": [{"station": 1, "table": "hr", "address": 1, "kind": "counter"},
                  {"station": 1, "table": "ir", "address": 0, "kind": "wave",
                   "min": 180, "max": 320, "period_s": 10}]}


class ServingHost:
    """modbus-ascii-host polling the rig with --serve, until the with-block ends."""

    def __init__(self, rig, *arguments):
        with open(rig.path("tags.csv"), "w", encoding="utf-8") as stream:
            stream.write(TAGS)
        self.stderr_path = rig.path("host.err")
        self.command = [*HOST_COMMAND, "--port", rig.path("master"), *LINE_SETTINGS, *FAST_LINE,
                        "--multi-station", "--retries", "0", "--tags", rig.path("tags.csv"),
                        "--once-table", "--format", "json", "--duration", "120", *arguments]
        self.process = None
        self.address = None

    def __enter__(self):
        with open(self.stderr_path, "w", encoding="utf-8") as stderr:
            self.process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL,
                                            stderr=stderr, preexec_fn=die_with_parent)
        deadline = time.monotonic() + START_TIMEOUT_S
        while self.address is None:
            match = re.search(r"the live page is at (\S+)", self.stderr())
            if match:
                self.address = match.group(1)
            elif self.process.poll() is not None or time.monotonic() > deadline:
                stop_process(self.process)
                raise AssertionError("the tool did not serve its page:\n" + self.stderr())
            time.sleep(0.05)
        return self

    def __exit__(self, *exc):
        stop_process(self.process)

    def stderr(self):
        with open(self.stderr_path, encoding="utf-8") as stream:
            return stream.read()

    def port(self):
        return int(re.search(r":(\d+)/", self.address).group(1))


def get(port, path, method="GET", headers=None):
    """(status, headers, body) of one request to 127.0.0.1:port."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    try:
        connection.request(method, path, headers=headers or {})
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read()
    finally:
        connection.close()


def raw_status(port, request):
    """The status code the server answers a request written byte for byte."""
    with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
        connection.sendall(request.encode())
        return int(connection.recv(4096).split(b" ")[1])


def open_event_stream(port, path="/api/events", receive_buffer=None):
    """A connection to the event stream with its status read; the caller closes it."""
    connection = socket.socket()
    if receive_buffer:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    connection.settimeout(10)
    connection.connect(("127.0.0.1", port))
    connection.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
    head = b""
    while b"\r\n" not in head:
        head += connection.recv(1)
    return connection, int(head.split(b" ")[1])


def read_events(connection, count):
    """The next count events of a stream as (name, data) pairs."""
    text, events = "", []
    while len(events) < count:
        ready, _, _ = select.select([connection], [], [], 10)
        if not ready:
            raise AssertionError(f"only {len(events)} events came: {text[-300:]}")
        text += connection.recv(65536).decode(errors="replace")
        events = re.findall(r"event: (\w+)\r?\ndata: (.*?)\r?\n", text)
    return [(name, json.loads(data)) for name, data in events[:count]]


def first_number(text):
    return int(text.split()[0])


class BrowserTests(E2ECase):
    ROWS = """return Object.fromEntries([...document.querySelectorAll('#rows tr')].map(tr => [
        tr.dataset.name, {text: tr.querySelector('td.value').innerText.trim(),
                          unconfirmed: tr.classList.contains('unconfirmed')}]));"""
    STATIONS = """return [...document.querySelectorAll('.station')].map(card => [
        card.dataset.station, card.querySelector('.pill').textContent]);"""
    # Empty until the table is built.
    COUNTER = ("(document.querySelector('tr[data-name=counter] td.value') || {innerText: ''})"
               ".innerText.trim()")

    def watch_the_page(self, address, screenshot):
        """The rows when the counter has moved on, the station cards, the status, the PNG."""
        with browser.Browser(preexec_fn=die_with_parent) as page:
            page.open(address)
            first = page.wait_for(f"return /^\\d+ 0x/.test({self.COUNTER}) && {self.COUNTER}")
            page.wait_for(f"return {self.COUNTER} != {json.dumps(first)}")
            page.wait_for("return document.querySelectorAll('.station').length == 2")
            rows = page.run(self.ROWS)
            stations = page.run(self.STATIONS)
            status = page.run("return document.getElementById('status').textContent")
            png = page.screenshot(os.path.join(ARTIFACTS, screenshot))
        return first, rows, stations, status, png

    def test_the_page_shows_the_values_as_they_change_and_marks_the_unconfirmed(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            first, rows, stations, status, png = self.watch_the_page(host.address,
                                                                     "live-page.png")
        self.assertEqual(rows["setpoint"], {"text": "4660 0x1234", "unconfirmed": False})
        self.assertGreater(first_number(rows["counter"]["text"]), first_number(first))
        self.assertRegex(rows["temperature"]["text"], r"^\d+ 0x[0-9A-F]{4}$")
        self.assertTrue(180 <= first_number(rows["temperature"]["text"]) <= 320)
        # Station 2 never answers: its value is marked, never shown as a number.
        self.assertEqual(rows["remote_level"], {"text": "not confirmed", "unconfirmed": True})
        # Station 2 is set aside after three attempts without an answer.
        self.assertEqual(sorted(stations)[0], ["1", "answering"])
        self.assertEqual(sorted(stations)[1][0], "2")
        self.assertRegex(sorted(stations)[1][1], r"^set aside until \d+\.\d s$")
        self.assertEqual(status, "live")
        self.assertEqual(png[:8], PNG_SIGNATURE)
        self.assertGreater(len(png), 20000)  # a drawn page, not an empty one

    def test_with_a_token_the_page_passes_it_on_to_its_event_stream(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", f"127.0.0.1:{browser.free_port()}",
                                            "--serve-token", "s3cret") as host:
            self.assertTrue(host.address.endswith("/?token=s3cret"), host.address)
            _, rows, _, status, _ = self.watch_the_page(host.address, "live-page-token.png")
        self.assertEqual(rows["setpoint"]["text"], "4660 0x1234")
        self.assertEqual(status, "live")


class RefusalTests(E2ECase):
    def test_a_loopback_page_answers_loopback_host_names_only(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            statuses = {name: get(port, "/api/state", headers={"Host": name})[0]
                        for name in (f"127.0.0.1:{port}", f"localhost:{port}", "[::1]",
                                     "127.1.2.3", f"evil.example:{port}", "192.168.1.10",
                                     "localhost.evil.example", "[::2]:80")}
            missing_host = raw_status(port, "GET / HTTP/1.0\r\n\r\n")
        self.assertEqual(statuses, {f"127.0.0.1:{port}": 200, f"localhost:{port}": 200,
                                    "[::1]": 200, "127.1.2.3": 200, f"evil.example:{port}": 403,
                                    "192.168.1.10": 403, "localhost.evil.example": 403,
                                    "[::2]:80": 403})
        self.assertEqual(missing_host, 403)

    def test_only_get_on_four_paths_and_nothing_from_disk(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            methods = {m: get(port, "/", method=m)[:2] for m in ("POST", "PUT", "DELETE",
                                                                  "PATCH", "OPTIONS")}
            paths = {p: get(port, p)[0] for p in ("/", "/api/state", "/metrics", "/index.html",
                                                   "/api", "/api/state/", "/api/write",
                                                   "/metrics/", "/etc/passwd")}
            traversal = raw_status(port, f"GET /../../etc/passwd HTTP/1.1\r\nHost: 127.0.0.1:{port}"
                                         "\r\nConnection: close\r\n\r\n")
            wait_for_pass(port)
            status, headers, body = get(port, "/api/state")
        self.assertEqual({m: s for m, (s, _) in methods.items()},
                         dict.fromkeys(methods, 405))
        self.assertTrue(all(h.get("Allow") == "GET" for _, h in methods.values()))
        self.assertEqual(paths, {"/": 200, "/api/state": 200, "/metrics": 200, "/index.html": 404,
                                 "/api": 404, "/api/state/": 404, "/api/write": 404,
                                 "/metrics/": 404, "/etc/passwd": 404})
        self.assertIn(traversal, (400, 404))
        self.assertEqual((status, headers["Content-Type"]), (200, "application/json"))
        state = json.loads(body)
        self.assertEqual([row["name"] for row in state["values"]],
                         ["setpoint", "counter", "temperature", "remote_level"])
        self.assertEqual(state["values"][0]["values"], [4660])
        self.assertFalse(state["values"][3]["confirmed"])
        self.assertIsNone(state["values"][3]["values"])
        self.assertEqual(sorted(s["station"] for s in state["summary"]["stations"]), [1, 2])

    def test_a_token_is_needed_when_one_is_set(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port()),
                                            "--serve-token", "s3cret") as host:
            port = host.port()
            statuses = [get(port, "/api/state")[0], get(port, "/api/state?token=wrong")[0],
                        get(port, "/api/state?token=s3cret")[0],
                        get(port, "/api/state", headers={"Authorization": "Bearer s3cret"})[0],
                        get(port, "/api/state", headers={"Authorization": "Bearer s3cre"})[0]]
        self.assertEqual(statuses, [401, 401, 200, 200, 401])

    def test_a_token_of_any_characters_works_from_the_printed_link_and_the_header(self):
        # The link carries the token percent-encoded; the header carries it as it is.
        seen = {}
        with Rig(SLAVE) as rig:
            for token in ("plc+key%41", "a b", "x&y#z"):
                with ServingHost(rig, "--serve", str(browser.free_port()),
                                 "--serve-token", token) as host:
                    port = host.port()
                    link = host.address.split(f":{port}", 1)[1]
                    seen[token] = (link, get(port, link)[0],
                                   get(port, "/api/state",
                                       headers={"Authorization": f"Bearer {token}"})[0])
        self.assertEqual(seen, {"plc+key%41": ("/?token=plc%2Bkey%2541", 200, 200),
                                "a b": ("/?token=a%20b", 200, 200),
                                "x&y#z": ("/?token=x%26y%23z", 200, 200)})

    def test_any_other_address_than_loopback_gets_a_random_token(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", f"0.0.0.0:{browser.free_port()}") as host:
            port = host.port()
            token = re.search(r"\?token=([0-9a-f]+) \(a token made for this run\)",
                              host.stderr()).group(1)
            statuses = [get(port, "/api/state")[0],
                        get(port, "/api/state", headers={"Host": "plant-hmi:1"})[0],
                        get(port, f"/api/state?token={token}",
                            headers={"Host": "plant-hmi:1"})[0]]
        self.assertEqual(len(token), 32)
        self.assertEqual(statuses, [401, 401, 200])

    def test_at_most_eight_clients_at_once(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            streams = []
            try:
                for _ in range(MAX_CLIENTS):
                    streams.append(open_event_stream(port))
                statuses = [status for _, status in streams]
                ninth_stream, ninth_status = open_event_stream(port)
                ninth_stream.close()
                ninth = [ninth_status, get(port, "/")[0], get(port, "/api/state")[0]]
                streams.pop()[0].close()
                after_one_left = wait_for_status(port, 200)
            finally:
                for connection, _ in streams:
                    connection.close()
        self.assertEqual(statuses, [200] * MAX_CLIENTS)
        self.assertEqual(ninth, [503, 503, 503])
        self.assertEqual(after_one_left, 200)

    def test_the_event_stream_starts_with_the_state_and_sends_changes(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            wait_for_pass(host.port())
            connection, status = open_event_stream(host.port())
            with connection:
                events = read_events(connection, 5)
        self.assertEqual(status, 200)
        self.assertEqual(events[0][0], "state")
        self.assertEqual(len(events[0][1]["values"]), 4)
        names = [name for name, _ in events[1:]]
        self.assertEqual(names, ["values", "health", "values", "health"])
        # Only what changed is sent again, with its index in the table.
        changed = [row for _, update in events[1:] if "changed" in update
                   for row in update["changed"]]
        self.assertTrue(changed)
        self.assertTrue(all(row["index"] in (1, 2) for row in changed if row["confirmed"]))
        self.assertIn("stations", events[2][1]["summary"])

    def test_the_stream_ends_with_the_run(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port()),
                                            "--duration", "2") as host:
            connection, _ = open_event_stream(host.port())
            with connection:
                names = event_names_until_closed(connection)
            status = host.process.wait(10)
        self.assertEqual(names[0], "state")
        self.assertEqual(names[-1], "end")
        self.assertEqual(status, 1)  # station 2 never answered

    def test_clients_that_stop_reading_are_dropped(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            stalled = [open_event_stream(port, receive_buffer=4096)[0]
                       for _ in range(MAX_CLIENTS)]
            try:
                full = get(port, "/api/state")[0]
                started = time.monotonic()
                freed = wait_for_status(port, 200, timeout_s=60)
                print(f"a stalled client was dropped after {time.monotonic() - started:.1f} s",
                      file=sys.stderr)
            finally:
                for connection in stalled:
                    connection.close()
        self.assertEqual((full, freed), (503, 200))

    def test_stalled_clients_do_not_stop_the_polling(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            stalled = [open_event_stream(port)[0] for _ in range(MAX_CLIENTS - 1)]
            try:
                before = json.loads(get(port, "/api/state")[2])["summary"]["transactions"]
                time.sleep(2)
                after = json.loads(get(port, "/api/state")[2])["summary"]["transactions"]
            finally:
                for connection in stalled:
                    connection.close()
        self.assertGreater(after, before + 10)


def event_names_until_closed(connection, timeout_s=20):
    """The names of the events a stream sends until the server ends it."""
    text, deadline = b"", time.monotonic() + timeout_s
    while time.monotonic() < deadline:
        ready, _, _ = select.select([connection], [], [], 1)
        if not ready:
            continue
        piece = connection.recv(65536)
        if not piece:
            break
        text += piece
    return re.findall(r"event: (\w+)", text.decode(errors="replace"))


def metric_samples(text):
    """{(name, ((label, value), ...)): value} of a Prometheus text."""
    samples = {}
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        match = re.fullmatch(r"([a-z_:]+)(?:\{(.*)\})? (\S+)", line)
        labels = tuple(re.findall(r'(\w+)="((?:[^"\\]|\\.)*)"', match.group(2) or ""))
        samples[(match.group(1), labels)] = float(match.group(3))
    return samples


class MetricsTests(E2ECase):
    """/metrics: what promtool makes of it, its names, and its counters against the summary."""

    @unittest.skipUnless(shutil.which("promtool"), "promtool (Debian's prometheus) is missing")
    def test_promtool_finds_nothing_to_say_and_the_counters_match_the_summary(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", str(browser.free_port())) as host:
            port = host.port()
            wait_for_pass(port)
            status, headers, body = get(port, "/metrics")
            # The same snapshot for both: /api/state before and after show the same summary.
            for _ in range(50):
                before = json.loads(get(port, "/api/state")[2])["summary"]
                metrics = get(port, "/metrics")[2].decode()
                after = json.loads(get(port, "/api/state")[2])["summary"]
                if before == after:
                    break
        self.assertEqual((status, headers["Content-Type"]),
                         (200, "text/plain; version=0.0.4; charset=utf-8"))
        checked = subprocess.run(["promtool", "check", "metrics"], input=body,
                                 capture_output=True, timeout=30, check=False)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, b"", b""))
        self.assertEqual(before, after)
        samples = metric_samples(metrics)
        families = {name for name, _ in samples}
        self.assertTrue(all(name.startswith("modbus_ascii_") for name in families), families)
        types = dict(re.findall(r"^# TYPE (\S+) (\S+)$", metrics, re.MULTILINE))
        self.assertTrue(all(name.endswith("_total") for name, kind in types.items()
                            if kind == "counter"), types)
        self.assertEqual([name for name, kind in types.items() if kind == "histogram"],
                         ["modbus_ascii_response_seconds"])
        transactions = sum(v for (name, _), v in samples.items()
                           if name == "modbus_ascii_transactions_total")
        self.assertEqual(transactions, before["transactions"])
        ages = {dict(labels)["name"]: value for (name, labels), value in samples.items()
                if name == "modbus_ascii_value_age_seconds"}
        self.assertEqual(sorted(ages), ["counter", "remote_level", "setpoint", "temperature"])
        self.assertTrue(math.isnan(ages["remote_level"]))  # station 2 never answers
        self.assertLess(ages["setpoint"], 5)
        self.assertEqual(samples[("modbus_ascii_response_seconds_count", (("station", "1"),))],
                         samples[("modbus_ascii_response_seconds_bucket",
                                  (("station", "1"), ("le", "+Inf")))])

    def test_the_page_s_access_rules_hold_for_metrics(self):
        with Rig(SLAVE) as rig, ServingHost(rig, "--serve", f"0.0.0.0:{browser.free_port()}",
                                            "--serve-token", "s3cret") as host:
            port = host.port()
            without = get(port, "/metrics")[0]
            wrong = get(port, "/metrics", headers={"Authorization": "Bearer guess"})[0]
            bearer = get(port, "/metrics", headers={"Authorization": "Bearer s3cret"})[0]
            query = get(port, "/metrics?token=s3cret")[0]
            posted = get(port, "/metrics?token=s3cret", method="POST")[0]
        self.assertEqual((without, wrong, bearer, query, posted), (401, 401, 200, 200, 405))


def wait_for_pass(port, passes=2, timeout_s=10):
    """The state once the tool has polled so many passes."""
    deadline = time.monotonic() + timeout_s
    while True:
        state = json.loads(get(port, "/api/state")[2])
        if state["cycle"] >= passes:
            return state
        if time.monotonic() > deadline:
            raise AssertionError(f"no pass {passes} in time: {state}")
        time.sleep(0.1)


def wait_for_status(port, status, timeout_s=10):
    """The status of GET /api/state once it is the one awaited, or the last one seen."""
    deadline = time.monotonic() + timeout_s
    while True:
        seen = get(port, "/api/state")[0]
        if seen == status or time.monotonic() > deadline:
            return seen
        time.sleep(0.1)


class BadInputTests(E2ECase):
    def run_tool(self, rig, *arguments):
        return rig.host("--tag", "4x:0", "--cycles", "1", *arguments)

    def test_each_bad_serve_option_is_named_and_ends_with_status_2(self):
        cases = [
            (["--serve", "70000"], "--serve: port '70000' is not a whole number from 1 to 65535"),
            (["--serve", "0"], "--serve: port '0' is not a whole number from 1 to 65535"),
            (["--serve", "127.0.0.1:http"], "--serve: port 'http'"),
            (["--serve", "1.2.3:8080"], "--serve: '1.2.3' is not an IPv4 address"),
            (["--serve", "plant-hmi:8080"], "--serve: 'plant-hmi' is not an IPv4 address"),
            (["--serve", "::1:8080"], "--serve: '::1' is not an IPv4 address"),
            (["--serve", "0.0.0.0:8080", "--serve-token", ""], "--serve-token: an empty token"),
            (["--serve-token", "x"], "--serve-token needs --serve"),
            (["--serve", "8080", "--plan"], "--serve shows a polling run"),
        ]
        with Rig(SLAVE) as rig:
            runs = [(self.run_tool(rig, *arguments), expected) for arguments, expected in cases]
        for run, expected in runs:
            self.assertEqual(run.status, 2, expected)
            self.assertIn(expected, run.stderr)

    def test_a_port_in_use_is_named(self):
        with socket.socket() as taken, Rig(SLAVE) as rig:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            run = self.run_tool(rig, "--serve", str(port))
        self.assertEqual(run.status, 2)
        self.assertIn(f"--serve: port {port} is already in use (127.0.0.1:{port})", run.stderr)


if __name__ == "__main__":
    missing = prerequisites_missing()
    selected = sys.argv[1:] or ["BrowserTests"]
    if not missing and any(name.startswith("BrowserTests") for name in selected):
        missing = browser.missing()
    if missing:
        print(f"skipped: {missing}")
        sys.exit(SKIP_EXIT_STATUS)
    unittest.main(verbosity=2)
