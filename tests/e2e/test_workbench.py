#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of the integrator's workbench: the bus scan, line health per station, the
run log and its picture (tools/plot_run.py), and the live view under a real terminal (tmux).

They use the rig of test_e2e.py (socat pseudo-terminals and the simulated slave). Run with
Debian's /usr/bin/python3:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        MODBUS_PLOT=tools/plot_run.py /usr/bin/python3 tests/e2e/test_workbench.py [TestClass]
Exits with 77 (reported as skipped by CTest) when socat, pymodbus, matplotlib or tmux is
missing.
"""
import json
import os
import re
import shlex
import shutil
import struct
import subprocess
import sys
import time
import unittest

from test_e2e import (HOST_COMMAND, HOST_TIMEOUT_S, LINE_SETTINGS, PYTHON, SKIP_EXIT_STATUS, E2ECase,
                      Rig, die_with_parent, prerequisites_missing)

PLOT = os.environ.get("MODBUS_PLOT", "")
# Short waits keep the silent stations quick.
FAST_LINE = ["--timeout-ms", "300", "--char-timeout-ms", "200", "--quiet-ms", "50"]
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
SCREEN_TIMEOUT_S = 30
HIGHLIGHT = "\x1b[7m"


def json_lines(text):
    return [json.loads(line) for line in text.splitlines() if line.strip()]


class ScanTests(E2ECase):
    def test_each_station_answers_raises_an_exception_or_stays_silent(self):
        stations = {"1": {"hr": {"0": [0x1234]}}, "3": {"hr": {"0": [7]}}, "4": {}}
        faults = [{"station": 4, "kind": "exception"}]
        with Rig({"stations": stations, "faults": faults}) as rig:
            run = rig.host("--scan", "1-5", *FAST_LINE)
        self.assertCompleted(run)
        probes = {o["station"]: o for o in run.objects}
        self.assertEqual(sorted(probes), [1, 2, 3, 4, 5])
        self.assertEqual({s: (p["status"], p.get("value"), p.get("code"))
                          for s, p in probes.items()},
                         {1: ("answered", 0x1234, None), 2: ("silent", None, None),
                          3: ("answered", 7, None), 4: ("exception", None, 4),
                          5: ("silent", None, None)})
        for station in (1, 3, 4):
            self.assertGreater(probes[station]["response_ms"], 0)
            self.assertLess(probes[station]["response_ms"], 300)
        for station in (2, 5):
            self.assertIsNone(probes[station]["response_ms"])
        # Standard error is no terminal here: no progress bar.
        self.assertEqual(run.stderr, "")

    def test_a_scan_reads_the_scan_tag_once_per_station_and_prints_a_table(self):
        with Rig({"stations": {"2": {"ir": {"9": [41]}}}}) as rig:
            completed = subprocess.run(
                [*HOST_COMMAND, "--port", rig.path("master"), *LINE_SETTINGS, *FAST_LINE, "--trace",
                 "--scan", "1-3", "--scan-tag", "3x:9"],
                capture_output=True, text=True, timeout=HOST_TIMEOUT_S,
                preexec_fn=die_with_parent)
        self.assertEqual(completed.returncode, 0, completed.stderr)
        self.assertEqual(completed.stdout.splitlines()[1].split()[:4],
                         ["2", "answered", "41", "(0x0029)"])
        self.assertIn("silent: 1, 3\n", completed.stdout)
        self.assertIn("1 of 3 stations answered, 0 with an exception", completed.stdout)
        # Function 4, register 9, one register, once to each station (LRCs by hand).
        self.assertEqual([line.split(" TX ")[1] for line in completed.stderr.splitlines()
                          if " TX " in line],
                         [":010400090001F1", ":020400090001F0", ":030400090001EF"])

    def test_no_answer_at_all_ends_with_status_1(self):
        with Rig({"stations": {"9": {}}}) as rig:
            run = rig.host("--scan", "1-2", *FAST_LINE)
        self.assertEqual(run.status, 1, run.stderr)
        self.assertEqual([o["status"] for o in run.objects], ["silent", "silent"])


class HealthTests(E2ECase):
    def test_each_station_has_its_failures_by_kind_and_its_response_times(self):
        stations = {"1": {"hr": {"0": [1]}}, "2": {"hr": {"0": [2]}}}
        faults = [{"station": 2, "kind": kind} for kind in ("bad-lrc", "exception", "truncate")]
        with Rig({"stations": stations, "faults": faults, "silent": [3]}) as rig:
            # The silent station stays on the read list: its every attempt is counted.
            run = rig.host("--multi-station", "--retries", "0", "--demote-after", "10", *FAST_LINE,
                           "--cycles", "4",
                           "--tag", "4x:0:1:1", "--tag", "4x:0:1:2", "--tag", "4x:0:1:3")
        self.assertCompleted(run, status=1)
        health = {s["station"]: s for s in run.summary()["stations"]}
        self.assertEqual(sorted(health), [1, 2, 3])
        self.assertEqual([(health[s]["transactions"], health[s]["accepted"]) for s in (1, 2, 3)],
                         [(4, 4), (4, 1), (4, 0)])
        self.assertEqual(health[1]["failures"], {"noReply": 0, "badContent": 0,
                                                 "wrongLength": 0, "exception": 0,
                                                 "badEcho": 0, "strayFrames": 0})
        # The reply with a wrong LRC and the cut-off one are set aside by the host (two stray
        # frames): bad content, though the driver saw nothing.
        self.assertEqual(health[2]["failures"], {"noReply": 0, "badContent": 2,
                                                 "wrongLength": 0, "exception": 1,
                                                 "badEcho": 0, "strayFrames": 2})
        self.assertEqual(health[3]["failures"]["noReply"], 4)
        for station, replies in ((1, 4), (2, 2), (3, 0)):
            response = health[station]["responseMs"]
            self.assertEqual(response["samples"], replies)
            self.assertLessEqual(response["min"], response["median"])
            self.assertLessEqual(response["median"], response["p95"])
            self.assertLessEqual(response["p95"], response["max"])


class RunLogTests(E2ECase):
    def test_the_log_of_a_run_is_drawn_into_a_picture(self):
        faults = [{"station": 1, "kind": kind} for kind in ("silence", "bad-lrc")]
        live = [{"station": 1, "table": "hr", "address": 1, "kind": "counter"}]
        with Rig({"stations": {"1": {"hr": {"0": [5]}, "co": {"0": [1, 0, 1]}}},
                  "faults": faults, "live": live}) as rig:
            log = rig.path("run.jsonl")
            run = rig.host("--retries", "2", *FAST_LINE, "--cycles", "5", "--log", log,
                           "--tag", "4x:0:2", "--tag", "0x:0:3", "--tag", "4x_double:0:2")
            self.assertCompleted(run)
            with open(log, encoding="utf-8") as stream:
                records = json_lines(stream.read())
            picture = rig.path("run.png")
            plot = subprocess.run([PYTHON, PLOT, log, "-o", picture], capture_output=True,
                                  text=True, timeout=60, preexec_fn=die_with_parent)
            with open(picture, "rb") as stream:
                png = stream.read()
        passes = [r for r in records if r["record"] == "pass"]
        transactions = [r for r in records if r["record"] == "transaction"]
        self.assertEqual([r["pass"] for r in passes], [1, 2, 3, 4, 5])
        self.assertEqual([t["name"] for t in passes[-1]["tags"]], ["4x:0", "0x:0", "4x_double:0"])
        self.assertEqual(passes[-1]["tags"][1]["values"], [1, 0, 1])
        counter = [r["tags"][0]["values"][1] for r in passes]
        self.assertEqual(counter, sorted(counter))
        self.assertGreater(counter[-1], counter[0])
        # The first read: silent, then a reply with a wrong LRC, then accepted.
        self.assertEqual([(t["outcome"], t["result"]) for t in transactions[:3]],
                         [("noReply", 0), ("badContent", 0), ("accepted", 1)])
        self.assertEqual(len(transactions), 2 * 5 + 2)  # two merged reads a pass, two retries
        self.assertTrue(all(t["station"] == 1 and t["function"] in (1, 3) for t in transactions))
        self.assertIsNone(transactions[0]["response_ms"])
        self.assertGreater(transactions[2]["response_ms"], 0)
        times = [r["time"] for r in records]
        self.assertEqual(times, sorted(times))

        self.assertEqual(plot.returncode, 0, plot.stderr)
        self.assertIn("5 panels from 5 passes and 12 transactions with 1 stations", plot.stdout)
        self.assertEqual(png[:8], PNG_SIGNATURE)
        width, height = struct.unpack(">II", png[16:24])  # the IHDR chunk comes first
        self.assertEqual(width, 1100)
        self.assertGreater(height, 800)
        self.assertGreater(len(png), 20000)  # lines and text, not an empty canvas

    def test_a_log_that_cannot_be_written_stops_the_tool(self):
        with Rig({"stations": {"1": {}}}) as rig:
            run = rig.host("--log", rig.path("no-such-directory/run.jsonl"), "--cycles", "1",
                           "--tag", "4x:0")
        self.assertEqual(run.status, 2)
        self.assertIn("--log: cannot write", run.stderr)


class Terminal:
    """A tmux server of its own with one pane of 110 x 24 characters."""

    def __init__(self, directory):
        self.socket = os.path.join(directory, "tmux.socket")

    def tmux(self, *arguments):
        return subprocess.run(["tmux", "-S", self.socket, *arguments], capture_output=True,
                              text=True, timeout=10, check=True,
                              env=dict(os.environ, TERM="xterm-256color")).stdout

    def start(self, command):
        # The shell ignores Ctrl-C so that it reports the tool's exit status afterwards; the
        # tool installs its own handler for it.
        script = f"trap '' INT; {shlex.join(command)}; echo \"exit status $?\"; sleep 60"
        self.tmux("new-session", "-d", "-x", "110", "-y", "24", "sh", "-c", script)

    def screen(self):
        """The pane's text with its attributes as escape sequences."""
        return self.tmux("capture-pane", "-p", "-e")

    def wait_for(self, condition):
        deadline = time.monotonic() + SCREEN_TIMEOUT_S
        while time.monotonic() < deadline:
            screen = self.screen()
            if condition(screen):
                return screen
            time.sleep(0.2)
        raise AssertionError("the screen never showed what was awaited:\n" + self.screen())

    def stop(self):
        subprocess.run(["tmux", "-S", self.socket, "kill-server"], capture_output=True,
                       timeout=10, check=False)


def plain(text):
    """Text without its attribute sequences (tmux puts a line's resets where the next cell is)."""
    return re.sub(r"\x1b\[[0-9;]*m", "", text)


def line_of(screen, start):
    """The screen line whose text starts so, attribute sequences included."""
    return next((line for line in screen.splitlines() if plain(line).startswith(start)), "")


class WatchTests(E2ECase):
    def test_the_live_table_highlights_changes_and_shows_the_line_health(self):
        live = [{"station": 1, "table": "hr", "address": 1, "kind": "counter"}]
        with Rig({"stations": {"1": {"hr": {"0": [4660]}}}, "live": live}) as rig:
            terminal = Terminal(rig.directory)
            try:
                terminal.start([*HOST_COMMAND, "--port", rig.path("master"), *LINE_SETTINGS, "--watch",
                                "--duration", "60", "--tag", "4x:0", "--tag", "4x:1"])
                screen = terminal.wait_for(
                    lambda s: HIGHLIGHT in line_of(s, "4x:1") and "station 1:" in s)
                terminal.tmux("send-keys", "C-c")
                after = terminal.wait_for(lambda s: "exit status" in s)
            finally:
                terminal.stop()
        self.assertIn("modbus-ascii-host --watch  pass ", screen)
        self.assertIn("name                 station area       address   values", screen)
        # The counter goes up every pass and is highlighted; the constant is not.
        self.assertIn("4660 (0x1234)", line_of(screen, "4x:0"))
        self.assertNotIn(HIGHLIGHT, line_of(screen, "4x:0"))
        health = plain(line_of(screen, "station 1:"))
        self.assertRegex(health, r"^station 1: (\d+)/\1 accepted; response ms min ")
        # After Ctrl-C: back on the normal screen with the last table and the summary.
        self.assertIn("exit status 0", after)
        self.assertIn("-- at the end (passes: ", after)
        self.assertIn("(interrupted)", after)
        self.assertIn("station transactions accepted", after)

    def test_without_a_terminal_the_tables_are_printed_plainly(self):
        with Rig({"stations": {"1": {"hr": {"0": [9]}}}}) as rig:
            completed = subprocess.run(
                [*HOST_COMMAND, "--port", rig.path("master"), *LINE_SETTINGS, "--watch", "--cycles", "2",
                 "--tag", "4x:0"],
                capture_output=True, text=True, timeout=HOST_TIMEOUT_S,
                preexec_fn=die_with_parent)
        self.assertEqual(completed.returncode, 0, completed.stderr)
        self.assertNotIn("\x1b", completed.stdout)
        self.assertIn("-- after pass 1\n", completed.stdout)
        self.assertIn("-- after pass 2\n", completed.stdout)


def workbench_prerequisites_missing():
    missing = prerequisites_missing()
    if missing:
        return missing
    if not shutil.which("tmux"):
        return "tmux is not installed"
    probe = subprocess.run([PYTHON, "-c", "import matplotlib"], capture_output=True, check=False)
    if probe.returncode != 0:
        return "python3-matplotlib is not installed"
    if not PLOT:
        return "MODBUS_PLOT must name tools/plot_run.py"
    return None


if __name__ == "__main__":
    missing = workbench_prerequisites_missing()
    if missing:
        print(f"skipped: {missing}")
        sys.exit(SKIP_EXIT_STATUS)
    unittest.main(verbosity=2)
