#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests: modbus-ascii-host and the driver library against a pymodbus ASCII slave.

Every test that needs a line builds a rig: a socat pseudo-terminal pair with the simulated
slave (tools/sim_slave.py) on one end and the host tool on the other. The host runs with
--format json; what the master wrote is checked in the datastore the slave dumps when it ends,
never by reading it back through the driver.

Pseudo-terminals refuse 7 data bits with even parity (EINVAL), so both ends run at 8N1.

A host tool built for another architecture runs through MODBUS_HOST_LAUNCHER (for example
"qemu-arm-static -L SYSROOT"); the slave always runs natively.

Run with Debian's /usr/bin/python3 (python3-pymodbus, python3-serial-asyncio) and socat:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_e2e.py [TestClass[.test_name] ...]
Exits with 77 (reported as skipped by CTest) when socat or pymodbus is missing.
"""
import ctypes
import json
import os
import re
import select
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HOST = os.environ.get("MODBUS_HOST", "")
# A command that runs the host tool when it is built for another architecture (qemu-user).
HOST_LAUNCHER = shlex.split(os.environ.get("MODBUS_HOST_LAUNCHER", ""))
# The command that starts the host tool, launcher included.
HOST_COMMAND = [*HOST_LAUNCHER, HOST]
SIM = os.environ.get("MODBUS_SIM", "")
EXAMPLES = os.environ.get("MODBUS_EXAMPLES", "")
PYTHON = "/usr/bin/python3"
LINE_SETTINGS = ["--data-bits", "8", "--parity", "none"]
SLAVE_LINE_SETTINGS = ["--data-bits", "8", "--parity", "N"]
SKIP_EXIT_STATUS = 77

# Bounds on every wait, well inside the CTest time-out, so that clean-up always runs.
HOST_TIMEOUT_S = 30
# Reply and inter-character time-outs of the host: long enough for a slave on a loaded CI
# machine, short enough to keep the silent cases quick.
REPLY_TIMEOUT = ["--timeout-ms", "400", "--char-timeout-ms", "200"]
READY_TIMEOUT_S = 10
STOP_TIMEOUT_S = 5

PR_SET_PDEATHSIG = 1


def die_with_parent():
    """Child processes get SIGTERM if this test process dies without cleaning up."""
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def stop_process(process):
    """SIGTERM, then SIGKILL if it does not end in time; always reaped."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(STOP_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class HostRun:
    """One finished run of modbus-ascii-host --format json."""

    def __init__(self, completed):
        self.status = completed.returncode
        self.stdout = completed.stdout
        self.stderr = completed.stderr
        self.objects = [json.loads(line) for line in completed.stdout.splitlines() if line]

    def last_values(self):
        """{(name, station): [values]} of the last table printed."""
        tables = [o for o in self.objects if "values" in o]
        return {(row["name"], row["station"]): row["values"] for row in tables[-1]["values"]}

    def summary(self):
        return next(o["summary"] for o in self.objects if "summary" in o)

    def sent_frames(self):
        return re.findall(r" TX (:[0-9A-F]+)", self.stderr)


def library_without_interface():
    """A shared library of the host tool's architecture that lacks the driver's functions."""
    if os.environ.get("MODBUS_OTHER_LIBRARY"):
        return os.environ["MODBUS_OTHER_LIBRARY"]
    return next(p for p in ("/lib/x86_64-linux-gnu/libz.so.1", "/usr/lib/libz.so.1",
                            "/lib/aarch64-linux-gnu/libz.so.1") if os.path.exists(p))


def run_host(*arguments):
    completed = subprocess.run([*HOST_COMMAND, "--format", "json", *arguments],
                               capture_output=True,
                               text=True, timeout=HOST_TIMEOUT_S, preexec_fn=die_with_parent)
    return HostRun(completed)


class Rig:
    """A socat pseudo-terminal pair with the simulated slave on one end."""

    def __init__(self, slave_config, *slave_arguments):
        self.slave_config = slave_config
        self.slave_arguments = list(slave_arguments)
        self.processes = []
        self.directory = None
        self.slave = None

    def __enter__(self):
        self.directory = tempfile.mkdtemp(prefix="modbus-e2e-")
        try:
            self.start_socat()
            self.start_slave()
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exc):
        for process in reversed(self.processes):
            stop_process(process)
            if process.stdout:
                process.stdout.close()
        shutil.rmtree(self.directory, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.directory, name)

    def spawn(self, command, **kwargs):
        process = subprocess.Popen(command, preexec_fn=die_with_parent, **kwargs)
        self.processes.append(process)
        return process

    def start_socat(self):
        self.spawn(["socat", f"pty,raw,echo=0,link={self.path('slave')}",
                    f"pty,raw,echo=0,link={self.path('master')}"], stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + READY_TIMEOUT_S
        while not (os.path.exists(self.path("slave")) and os.path.exists(self.path("master"))):
            if time.monotonic() > deadline:
                raise RuntimeError("socat did not create the pseudo-terminal pair")
            time.sleep(0.02)

    def start_slave(self):
        with open(self.path("slave.json"), "w", encoding="utf-8") as stream:
            json.dump(self.slave_config, stream)
        with open(self.path("slave.log"), "w", encoding="utf-8") as log:
            self.slave = self.spawn(
                [PYTHON, SIM, "--port", self.path("slave"), *SLAVE_LINE_SETTINGS,
                 "--config", self.path("slave.json"), "--dump", self.path("dump.json"),
                 *self.slave_arguments],
                stdout=subprocess.PIPE, stderr=log, text=True)
        ready, _, _ = select.select([self.slave.stdout], [], [], READY_TIMEOUT_S)
        if not ready or not self.slave.stdout.readline().startswith("ready"):
            with open(self.path("slave.log"), encoding="utf-8") as log:
                raise RuntimeError("the simulated slave did not start:\n" + log.read())

    def host(self, *arguments):
        return run_host("--port", self.path("master"), *LINE_SETTINGS, *arguments)

    def datastore(self):
        """Ends the slave and returns its dumped datastore: {station: {table: {addr: value}}}."""
        stop_process(self.slave)
        with open(self.path("dump.json"), encoding="utf-8") as stream:
            stations = json.load(stream)["stations"]
        return {int(s): {t: {int(a): v for a, v in values.items()} for t, values in tables.items()}
                for s, tables in stations.items()}


def split_words(value):
    """A 32-bit value as the two registers a slave holds, high word first."""
    return [value >> 16, value & 0xFFFF]


class E2ECase(unittest.TestCase):
    maxDiff = None

    def assertCompleted(self, run, status=0):
        self.assertEqual(run.status, status, run.stderr)


class ToolTests(E2ECase):
    """What the tool does before it touches a line."""

    def test_plan_merges_a_gap_and_cuts_a_long_variable(self):
        run = run_host("--plan", "--max-frame-words", "10",
                       "--tag", "4x:0:2", "--tag", "4x:6:2",  # one request, gap 2..5 read too
                       "--tag", "3x:100:25",                  # longer than a frame: 10, 10, 5
                       "--tag", "0x:3", "--tag", "0x:20")     # coils 0..23: three bytes
        self.assertCompleted(run)
        self.assertEqual(run.objects[0]["plan"], [
            {"station": 1, "area": "0x", "function": 1, "address": 0, "quantity": 24},
            {"station": 1, "area": "3x", "function": 4, "address": 100, "quantity": 10},
            {"station": 1, "area": "3x", "function": 4, "address": 110, "quantity": 10},
            {"station": 1, "area": "3x", "function": 4, "address": 120, "quantity": 5},
            {"station": 1, "area": "4x", "function": 3, "address": 0, "quantity": 8},
        ])

    def test_bad_address_in_a_tag_file_stops_with_the_line_and_the_drivers_message(self):
        with tempfile.TemporaryDirectory() as directory:
            tags = os.path.join(directory, "tags.csv")
            with open(tags, "w", encoding="utf-8") as stream:
                stream.write("name,station,area,address,length\n"
                             "ok,1,4x,40001,1\n"
                             "bad,1,3x_bit,100.16,1\n")
            english = run_host("--plan", "--tags", tags)
            chinese = run_host("--plan", "--tags", tags, "--lang", "zh")
        self.assertEqual(english.status, 2)
        self.assertIn("tags.csv:3: Address Format: ddddd.DD, range: 0.0~65535.15", english.stderr)
        self.assertEqual(chinese.status, 2)
        self.assertIn("tags.csv:3: 地址格式: ddddd.DD", chinese.stderr)

    def test_bad_tag_option_names_the_option(self):
        run = run_host("--plan", "--tag", "4x:65535:2")
        self.assertEqual(run.status, 2)
        self.assertIn("--tag '4x:65535:2': span of 2 registers from 65535 runs past the top of "
                      "area 4x (65535)", run.stderr)

    def test_a_missing_interface_function_is_named(self):
        run = run_host("--plan", "--library", library_without_interface())
        self.assertEqual(run.status, 2)
        self.assertIn("does not export SetComInfo", run.stderr)

    def test_a_port_that_cannot_be_opened_is_one_message_and_status_2(self):
        run = run_host("--port", "/dev/no-such-port", "--tag", "4x:0")
        self.assertEqual(run.status, 2)
        self.assertEqual(run.stderr.count("\n"), 1, run.stderr)
        self.assertIn("cannot open serial port /dev/no-such-port", run.stderr)


AREA_DATA = {
    "co": {"0": [1, 0, 1, 1, 0, 0, 1, 0, 1, 1]},
    "di": {"8": [0, 1, 1, 0, 1]},
    "ir": {"0": [100, 101, 102], "30": [0b1000_0000_0010_1000],
           "40": split_words(100000) + split_words(0xFFFFFFFE),
           "100": list(range(3000, 3025))},
    "hr": {"0": [0x1234, 0x5678, 0xDEAD, 0xBEEF, 0x0102, 0x0304, 0xCAFE, 0xF00D],
           "12": [0x8001], "20": split_words(0x12345678)},
}


class ReadTests(E2ECase):
    def test_every_area_reads_what_the_slave_holds(self):
        with Rig({"stations": {"1": AREA_DATA}}) as rig:
            run = rig.host("--max-frame-words", "10", "--cycles", "2", "--trace",
                           "--tag", "0x:0:10", "--tag", "1x:8:5", "--tag", "3x:0:3",
                           "--tag", "4x:0:2", "--tag", "4x:6:2",     # merged across the gap
                           "--tag", "3x:100:25",                     # cut into 10, 10, 5
                           "--tag", "3x_bit:30.3:3", "--tag", "3x_bit:30.15",
                           "--tag", "4x_bit:12.0:2", "--tag", "4x_bit:12.15",
                           "--tag", "3x_double:40:4", "--tag", "4x_double:20:2")
        self.assertCompleted(run)
        self.assertEqual(run.last_values(), {
            ("0x:0", 1): [1, 0, 1, 1, 0, 0, 1, 0, 1, 1],
            ("1x:8", 1): [0, 1, 1, 0, 1],
            ("3x:0", 1): [100, 101, 102],
            ("4x:0", 1): [0x1234, 0x5678],
            ("4x:6", 1): [0xCAFE, 0xF00D],
            ("3x:100", 1): list(range(3000, 3025)),
            ("3x_bit:30.3", 1): [1, 0, 1],
            ("3x_bit:30.15", 1): [1],
            ("4x_bit:12.0", 1): [1, 0],
            ("4x_bit:12.15", 1): [1],
            ("3x_double:40", 1): [100000, 0xFFFFFFFE],
            ("4x_double:20", 1): [0x12345678],
        })
        summary = run.summary()
        self.assertEqual(summary["passes"], 2)
        self.assertEqual(summary["abandoned"], {})
        self.assertEqual(summary["accepted"], summary["transactions"])
        # The driver marks a pass in ComInfo's cycleDone word one request after the length of
        # the read list: once in these two passes.
        self.assertEqual(summary["driverCycleMarks"], 1)
        frames = run.sent_frames()
        self.assertIn(":010300000008F4", frames)  # registers 0..7: the gap 2..5 is read too
        # The 25 input registers at 100 (0x64) in frames of at most 10.
        self.assertEqual(sorted({(f[5:9], f[9:13]) for f in frames if f[3:5] == "04"
                                 and int(f[5:9], 16) >= 100}),
                         [("0064", "000A"), ("006E", "000A"), ("0078", "0005")])

    def test_the_example_tag_file_reads_the_demo_slave(self):
        with open(os.path.join(EXAMPLES, "demo_slave.json"), encoding="utf-8") as stream:
            config = json.load(stream)
        with Rig(config) as rig:
            run = rig.host("--tags", os.path.join(EXAMPLES, "tags.csv"), "--cycles", "1")
        self.assertCompleted(run)
        self.assertEqual({name: values for (name, _), values in run.last_values().items()}, {
            "pump_running": [1, 0, 1, 1, 0, 0, 1, 0],
            "door_closed": [0, 1, 1, 0, 1, 0, 0, 1],
            "temperature_x10": [215, 223, 198, 305],
            "alarm_bits": [1, 0, 0, 1, 0, 1],
            "energy_wh": [123456],
            "setpoint": [0x1234, 0x5678, 0x9ABC, 0xDEF0],
            "mode_flags": [1, 0, 1, 0, 0, 1, 0, 1],
            "batch_count": [1234567],
            "recipe": list(range(1001, 1013)),
        })


class WriteTests(E2ECase):
    def test_every_write_kind_lands_in_the_slaves_datastore(self):
        initial = {"co": {"0": [1]}, "hr": {"60": [0xA5A0], "70": [0x7777]}}
        with Rig({"stations": {"1": initial}}) as rig:
            run = rig.host("--max-frame-words", "5", "--trace",
                           "--write", "0x:5=1", "--write", "0x:0=0",
                           "--write", "4x:20=0x1234",
                           "--write", "4x:30=" + ",".join(str(v) for v in range(1, 13)),
                           "--write", "4x_double:50=305419896",
                           "--write", "4x_bit:60.3=1", "--write", "4x_bit:60.5=0")
            store = rig.datastore()[1]
        self.assertCompleted(run)
        self.assertEqual(store["co"], {5: 1})                     # coil 0 switched off
        holding = store["hr"]
        self.assertEqual(holding[20], 0x1234)
        self.assertEqual([holding[a] for a in range(30, 42)], list(range(1, 13)))
        self.assertEqual([holding[50], holding[51]], [0x1234, 0x5678])
        self.assertEqual(holding[60], 0xA588)                     # bit 3 set, bit 5 cleared
        self.assertEqual(holding[70], 0x7777)                     # untouched
        frames = run.sent_frames()
        # Function 16 frames (address, quantity): twelve registers at 30 with at most five
        # per frame, then the 32-bit value at 50.
        self.assertEqual([(f[5:9], f[9:13]) for f in frames if f[3:5] == "10"],
                         [("001E", "0005"), ("0023", "0005"), ("0028", "0002"),
                          ("0032", "0002")])
        # Each bit inside register 60 (0x3C): the register is read, then written whole.
        self.assertEqual([f[3:13] for f in frames if f[5:9] == "003C"],
                         ["03003C0001", "06003CA5A8", "03003C0001", "06003CA588"])
        # Every write is followed to its own outcome; the long one took three requests.
        self.assertEqual([(o["write"]["text"][:7], o["write"]["outcome"], o["write"]["requests"])
                          for o in run.objects if "write" in o],
                         [("0x:5=1", "done", {"done": 1}), ("0x:0=0", "done", {"done": 1}),
                          ("4x:20=0", "done", {"done": 1}), ("4x:30=1", "done", {"done": 3}),
                          ("4x_doub", "done", {"done": 1}), ("4x_bit:", "done", {"done": 1}),
                          ("4x_bit:", "done", {"done": 1})])
        self.assertEqual(run.summary()["writes"], {"done": 7})


class MultiStationTests(E2ECase):
    def test_two_stations_keep_their_own_data(self):
        stations = {
            "1": {"hr": {"0": [0x1111, 0x1112]}, "co": {"0": [1, 1, 0, 0]},
                  "ir": {"5": split_words(111111)}},
            "2": {"hr": {"0": [0x2221, 0x2222]}, "co": {"0": [0, 0, 1, 1]},
                  "ir": {"5": split_words(222222)}},
        }
        with Rig({"stations": stations}) as rig:
            run = rig.host("--multi-station", "--cycles", "2",
                           "--tag", "4x:0:2:1", "--tag", "4x:0:2:2",
                           "--tag", "0x:0:4:1", "--tag", "0x:0:4:2",
                           "--tag", "3x_double:5:2:1", "--tag", "3x_double:5:2:2",
                           "--once", "4x:1:1:2")
        self.assertCompleted(run)
        self.assertEqual(run.last_values(), {
            ("4x:0", 1): [0x1111, 0x1112], ("4x:0", 2): [0x2221, 0x2222],
            ("0x:0", 1): [1, 1, 0, 0], ("0x:0", 2): [0, 0, 1, 1],
            ("3x_double:5", 1): [111111], ("3x_double:5", 2): [222222],
            ("4x:1", 2): [0x2222],
        })


class LinkFaultTests(E2ECase):
    def test_a_silent_station_is_abandoned_and_the_next_requests_are_served(self):
        with Rig({"stations": {"1": {"hr": {"0": [42]}}}, "silent": [5]}) as rig:
            # Station 5 stays on the read list (not set aside): each of its requests is tried.
            run = rig.host("--multi-station", "--retries", "2", "--demote-after", "10",
                           *REPLY_TIMEOUT, "--cycles", "2", "--trace", "--verbose",
                           "--tag", "4x:0:1:1", "--tag", "4x:0:1:5", "--once", "3x:0:1:5")
        self.assertCompleted(run, status=1)
        summary = run.summary()
        # Three requests to station 5 (two cyclic, one one-shot), each sent 3 times: two
        # retries, then abandoned with 41 (no reply, ownerType 0).
        self.assertEqual(summary["abandoned"], {"41": 3})
        self.assertEqual(summary["retried"], 6)
        self.assertEqual(summary["accepted"], 2)
        self.assertGreaterEqual(summary["lineTimeMaxMs"], 400)
        # The host counted two passes; the driver, whose count every failed reply restarts,
        # never marked one.
        self.assertEqual((summary["passes"], summary["driverCycleMarks"]), (2, 0))
        self.assertEqual(summary["completions"],
                         [{"deviceId": 0, "ownerType": 0, "ownerId": 1, "status": 2}])
        # Station 5 never answered: its values are not shown (the driver's cache holds 0).
        self.assertEqual(run.last_values(), {("4x:0", 1): [42], ("4x:0", 5): None,
                                             ("3x:0", 5): None})
        results = re.findall(r" RX (.*) -> (\d+)", run.stderr)
        self.assertEqual(results[:3], [("(nothing)", "0"), ("(nothing)", "0"),
                                       ("(nothing)", "41")])
        self.assertEqual(results[3][1], "1")  # the next request, to station 1, is served

    def test_each_fault_is_abandoned_with_its_code(self):
        faults = [{"station": 1, "kind": kind} for kind in
                  ("bad-lrc", "lowercase", "truncate", "exception", "silence")]
        # Register 0 holds 0: the reply :0103020000FA has letters in its LRC, so the
        # lower-case reply fails the driver's check (it accepts lower case in data only).
        with Rig({"stations": {"1": {}}, "faults": faults}) as rig:
            run = rig.host("--retries", "0", *REPLY_TIMEOUT,
                           "--cycles", "6", "--tag", "4x:0")
        self.assertCompleted(run, status=1)
        summary = run.summary()
        # A reply with a wrong LRC and a cut-off reply answer nothing: the host sets them
        # aside and waits out the time-out (41). The lower-case reply answers the request and
        # is handed over, and the driver rejects it (11); so is the exception reply (71).
        self.assertEqual(summary["abandoned"], {"11": 1, "71": 1, "41": 3})
        self.assertEqual(summary["strayFrames"], {"garbled": 2})
        self.assertEqual(summary["exceptionReplies"], 1)
        self.assertEqual(summary["accepted"], 1)
        self.assertEqual(summary["passes"], 6)

    def test_rejected_replies_are_retried_until_one_is_accepted(self):
        faults = [{"station": 1, "kind": "bad-lrc"}, {"station": 1, "kind": "silence"}]
        with Rig({"stations": {"1": {"hr": {"3": [7]}}}, "faults": faults}) as rig:
            run = rig.host("--retries", "2", *REPLY_TIMEOUT, "--cycles", "1",
                           "--tag", "4x:3")
        self.assertCompleted(run)
        summary = run.summary()
        self.assertEqual((summary["retried"], summary["accepted"], summary["abandoned"]),
                         (2, 1, {}))
        self.assertEqual(run.last_values(), {("4x:3", 1): [7]})


class BroadcastTests(E2ECase):
    def test_a_broadcast_write_reaches_every_station(self):
        stations = {"1": {}, "2": {"hr": {"11": [5]}}}
        with Rig({"stations": stations, "broadcast": True}) as rig:
            run = rig.host("--station", "0", "--turnaround-ms", "50", "--trace",
                           "--write", "4x:10=0x4242", "--write", "4x:20=7,8",
                           "--write", "0x:3=1")
            store = rig.datastore()
        self.assertCompleted(run)
        self.assertEqual(len(re.findall(r"\(no reply expected\) -> 1 ", run.stderr)), 3)
        for station in (1, 2):
            self.assertEqual(store[station]["co"], {3: 1})
            self.assertEqual(store[station]["hr"].get(10), 0x4242)
            self.assertEqual([store[station]["hr"].get(a) for a in (20, 21)], [7, 8])
        self.assertEqual(store[2]["hr"][11], 5)


def prerequisites_missing():
    if not shutil.which("socat"):
        return "socat is not installed"
    probe = subprocess.run([PYTHON, "-c", "import pymodbus.server, serial_asyncio"],
                           capture_output=True, check=False)
    if probe.returncode != 0:
        return "python3-pymodbus or python3-serial-asyncio is not installed"
    if not (HOST and SIM):
        return "MODBUS_HOST and MODBUS_SIM must name the host tool and tools/sim_slave.py"
    return None


def run_tests():
    """Runs the tests of the script that was started (those named on its command line, or all),
    or exits with 77 when a prerequisite is missing."""
    missing = prerequisites_missing()
    if missing:
        print(f"skipped: {missing}")
        sys.exit(SKIP_EXIT_STATUS)
    unittest.main(module="__main__", verbosity=2)


if __name__ == "__main__":
    run_tests()
