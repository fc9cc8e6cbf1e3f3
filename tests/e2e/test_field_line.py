#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of a plant line: modbus-ascii-host against the pymodbus slave through
fault_relay.py, with an adapter that echoes every request.

Each test makes the noisy-line test's checks: every write's outcome against the slave's
datastore, no coil or register changed that was not written, no wrong value in any table.

Run as test_e2e.py is run, with the suite as the argument:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_field_line.py EchoTests
"""
import json
import os
import subprocess
import sys
import time

from test_e2e import (HOST_COMMAND, HOST_LAUNCHER, LINE_SETTINGS, E2ECase, Rig, run_host,
                      run_tests)
from test_noisy_line import (POLLED as NOISY_POLLED, SEED, TIMEOUT_MS, LineChecks, NoisyRig,
                             expected_rows, initial_data, planned_writes, pymodbus_config)

# The single writes of the noisy-line test (coils and registers, function 5 and 6), whose
# acknowledgement is the same characters as their echo.
SINGLE_WRITES = 80
POLLED = ["--tag", "4x:4000:20"]
# Late replies of the late-reply tests come this much after the time-out (plus 20 to 120 ms):
# about three time-outs after their request, far beyond the default quiet gap.
LATE_EXTRA_MS = 400
LATE_FAULT_RATE = 0.3


def single_writes(data):
    return planned_writes(data)[:SINGLE_WRITES]


def write_options(writes):
    return [a for option, _ in writes for a in ("--write", option)]


class EchoTests(LineChecks):
    def run_echoing_line(self, *relay_arguments, host_arguments=()):
        data = initial_data()
        writes = single_writes(data)
        with NoisyRig(pymodbus_config(data), 0, SEED, "--echo", *relay_arguments) as rig:
            run = rig.noisy_host("--cycles", "2", *POLLED, *write_options(writes),
                                 *host_arguments)
            relay = rig.relay_counts()
            store = rig.datastore()[1]
        self.assertIn(run.status, (0, 1), run.stderr)
        self.assert_writes_reported_truly(run, writes, store)
        self.assert_untouched_cells_kept(writes, data, store)
        rows = expected_rows(data)
        self.assert_tables_show_the_slaves_values(run, {"4x:4000": rows["4x:4000"]})
        return run.summary(), relay

    def test_auto_finds_the_echo_and_no_lost_write_is_reported_done(self):
        summary, relay = self.run_echoing_line("--request-loss", "0.2")
        print(f"\necho, one request in five lost: relay {relay}, writes {summary['writes']}",
              file=sys.stderr)
        self.assertGreater(relay["requests dropped"], 0)
        self.assertEqual(summary["echo"]["mode"], "auto")
        self.assertEqual(summary["echo"]["found"], "present")
        self.assertGreaterEqual(summary["echo"]["removed"], summary["transactions"])
        self.assertGreater(summary["writes"].get("done", 0), 0)

    def test_a_differing_echo_is_counted_and_its_attempt_is_not_answered(self):
        summary, relay = self.run_echoing_line("--echo-fault-rate", "0.2",
                                               host_arguments=["--echo", "on"])
        self.assertGreater(relay["echoes spoiled"], 0)
        self.assertEqual(summary["echo"]["mode"], "on")
        self.assertGreater(summary["strayFrames"]["differing echo"], 0)
        self.assertEqual(summary["stations"][0]["failures"]["badEcho"],
                         summary["strayFrames"]["differing echo"])

    def test_auto_finds_no_echo_on_a_plain_line_and_writes_are_acknowledged(self):
        with Rig({"stations": {"1": {"hr": {"10": [0]}}}}) as rig:
            run = rig.host("--format", "json", "--write", "4x:10=4660", "--trace")
            store = rig.datastore()[1]
        self.assertCompleted(run)
        self.assertEqual(store["hr"][10], 4660)
        self.assertEqual(run.summary()["echo"], {"mode": "auto", "found": "absent", "removed": 0})
        self.assertIn("local echo (auto): the adapter does not echo", run.stderr)

    def test_echo_on_a_plain_line_spoils_every_attempt(self):
        with Rig({"stations": {"1": {"hr": {"10": [0]}}}}) as rig:
            run = rig.host("--format", "json", "--echo", "on", "--retries", "1",
                           "--tag", "4x:10", "--cycles", "1")
        self.assertCompleted(run, status=1)
        self.assertEqual(run.summary()["stations"][0]["failures"]["badEcho"], 2)

    def test_an_unknown_echo_mode_names_the_option(self):
        run = run_host("--port", "/dev/null", "--echo", "maybe", "--tag", "4x:0")
        self.assertEqual(run.status, 2)
        self.assertIn("--echo: 'maybe' is not one of auto, on, off", run.stderr)


def run_late_line(data, writes, *host_arguments, seed=SEED):
    """The noisy-line run at 30 % with replies far later than the quiet gap: (run, relay, store)."""
    with NoisyRig(pymodbus_config(data), LATE_FAULT_RATE, seed,
                  "--late-extra-ms", str(LATE_EXTRA_MS)) as rig:
        run = rig.noisy_host("--cycles", "2", *NOISY_POLLED, *write_options(writes),
                             *host_arguments)
        relay = rig.relay_counts()
        store = rig.datastore()[1]
    return run, relay, store


class LateReplyTests(LineChecks):
    def test_replies_three_time_outs_late_never_show_a_wrong_value(self):
        data = initial_data()
        writes = planned_writes(data)
        run, relay, store = run_late_line(data, writes)
        summary = run.summary()
        late = summary["lateReplies"]
        print(f"\nlate replies {LATE_EXTRA_MS} ms past the time-out: relay {relay}, "
              f"writes {summary['writes']}, late {late}", file=sys.stderr)
        self.assertIn(run.status, (0, 1), run.stderr)
        self.assertGreater(relay["replies late"], 0)
        self.assert_writes_reported_truly(run, writes, store)
        self.assert_untouched_cells_kept(writes, data, store)
        self.assert_tables_show_the_slaves_values(run, expected_rows(data))
        last = run.last_values()
        confirmed = sum(1 for values in last.values() if values is not None)
        self.assertGreaterEqual(confirmed * 10, 9 * len(last))
        self.assertGreater(late["count"], 0)
        self.assertGreater(late["longestMs"], TIMEOUT_MS + LATE_EXTRA_MS)
        self.assertGreaterEqual(late["longestMs"], late["latestMs"])
        self.assertEqual(late["coveringTimeoutMs"], (late["latestMs"] // 10 + 1) * 10)


LIVE_STATIONS = (1, 2, 3)
DEAD_STATION = 4


def four_station_arguments():
    """Multi-station polling of register 0 of stations 1 to 4."""
    tags = [a for s in (*LIVE_STATIONS, DEAD_STATION) for a in ("--tag", f"4x:0:1:{s}")]
    return ["--multi-station", *tags]


def four_station_config(*silent):
    return {"stations": {str(s): {"hr": {"0": [100 + s]}} for s in (*LIVE_STATIONS, DEAD_STATION)},
            "silent": list(silent)}


class DeadStationTests(LineChecks):
    def test_a_silent_station_is_set_aside_probed_and_its_write_reported(self):
        with Rig(four_station_config(DEAD_STATION)) as rig:
            log = rig.path("run.jsonl")
            run = rig.host("--format", "json", "--timeout-ms", "250", "--demote-ms", "1500",
                           "--duration", "5", "--log", log, *four_station_arguments(),
                           "--write", f"4x:0:{DEAD_STATION}=9", "--write", "4x:0:2=7")
            store = rig.datastore()
            with open(log, encoding="utf-8") as stream:
                records = [json.loads(line) for line in stream]
        self.assertCompleted(run, status=1)
        outcomes = {o["write"]["station"]: o["write"]["outcome"] for o in run.objects
                    if "write" in o}
        self.assertEqual(outcomes, {DEAD_STATION: "unconfirmed", 2: "done"})
        self.assertEqual(store[2]["hr"][0], 7)
        health = {s["station"]: s for s in run.summary()["stations"]}
        self.assertRegex(health[DEAD_STATION]["standing"], r"^set aside until \d+\.\d s$")
        self.assertNotIn("standing", health[1])
        for station in LIVE_STATIONS:
            self.assertGreater(health[station]["accepted"], health[DEAD_STATION]["transactions"])
        states = [r["state"] for r in records
                  if r["record"] == "station" and r["station"] == DEAD_STATION]
        self.assertEqual(states[:3], [states[0], "probing", states[2]])
        self.assertRegex(states[0], "^set aside until")
        self.assertIn(f"station {DEAD_STATION} probing", run.stderr)
        for table in (o["values"] for o in run.objects if "values" in o):
            for row in table:
                expected = {1: [101], 2: [102, 7], 3: [103], DEAD_STATION: [None]}[row["station"]]
                shown = row["values"][0] if row["values"] else None
                self.assertIn(shown, expected, row)

    def test_stations_that_answer_are_never_set_aside(self):
        with Rig(four_station_config()) as rig:
            run = rig.host("--format", "json", "--demote-after", "1", "--cycles", "3",
                           *four_station_arguments())
        self.assertCompleted(run)
        self.assertNotIn("standing", run.summary()["stations"][3])

    def test_bad_demotion_settings_name_the_option(self):
        for option, value in (("--demote-after", "0"), ("--demote-ms", "-5"),
                              ("--demote-ms", "999999999999")):
            run = run_host("--port", "/dev/null", option, value, "--tag", "4x:0")
            self.assertEqual(run.status, 2, option)
            self.assertIn(f"{option}: '{value}' is not a whole number", run.stderr)


class PortLossRig(NoisyRig):
    """The relay makes the host's pseudo-terminal and takes it away for a while."""
    pairs = (("relay-slave", "slave"),)

    def host_side(self):
        return ["--host-link", self.path("master")]


class PortLossTests(LineChecks):
    def test_a_port_that_comes_back_ends_with_every_write_told_and_the_summary(self):
        data = initial_data()
        writes = single_writes(data)
        with PortLossRig(pymodbus_config(data), 0, SEED, "--port-loss-at", "0.2",
                         "--port-down-s", "2") as rig:
            log = rig.path("run.jsonl")
            run = rig.noisy_host("--duration", "4", "--reopen-ms", "300", "--log", log, *POLLED,
                                 *write_options(writes))
            relay = rig.relay_counts()
            store = rig.datastore()[1]
            with open(log, encoding="utf-8") as stream:
                records = [json.loads(line) for line in stream]
        self.assertIn(run.status, (0, 1), run.stderr)
        self.assertEqual(relay["port losses"], 1)
        summary = run.summary()
        self.assertEqual(summary["portLosses"], 1)
        self.assertGreater(summary["portDownMs"], 1500)
        # The system's own reason: the device node gone, or a read that fails on a hung-up line.
        self.assertRegex(run.stderr, r"modbus-ascii-host: \d{4}-\d\d-\d\dT[\d:.]+: serial port "
                                     r"\S+ lost \((No such file or directory|Input/output "
                                     r"error)\); reopening every 300 ms")
        self.assertRegex(run.stderr, r"serial port \S+ back after \d+ ms")
        self.assertEqual([r["state"][:4] for r in records if r["record"] == "port"],
                         ["lost", "back"])
        self.assert_writes_reported_truly(run, writes, store)
        self.assert_untouched_cells_kept(writes, data, store)
        rows = expected_rows(data)
        self.assert_tables_show_the_slaves_values(run, {"4x:4000": rows["4x:4000"]})
        self.assertGreater(summary["writes"].get("done", 0), SINGLE_WRITES // 2)

    def test_a_port_that_cannot_be_opened_is_waited_for(self):
        with Rig({"stations": {"1": {"hr": {"0": [5]}}}}) as rig:
            real = rig.path("master")
            moved = rig.path("moved")
            os.rename(real, moved)
            host = subprocess.Popen(
                [*HOST_COMMAND, "--format", "json", "--port", real, *LINE_SETTINGS,
                 "--wait-for-port", "--reopen-ms", "200", "--tag", "4x:0", "--cycles", "2"],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            time.sleep(1)
            self.assertIsNone(host.poll())
            os.rename(moved, real)
            stdout, stderr = host.communicate(timeout=20)
        self.assertEqual(host.returncode, 0, stderr)
        self.assertIn("waiting for it", stderr)
        self.assertIn('"values":[5]', stdout)

    def test_bad_reopen_settings_name_the_option(self):
        run = run_host("--port", "/dev/null", "--reopen-ms", "0", "--tag", "4x:0")
        self.assertEqual(run.status, 2)
        self.assertIn("--reopen-ms: '0' is not a whole number", run.stderr)


class Rs485Tests(E2ECase):
    def test_a_pseudo_terminal_refuses_rs485_mode(self):
        with Rig({"stations": {"1": {"hr": {"0": [5]}}}}) as rig:
            run = rig.host("--rs485", "--rts-on-send", "low", "--rts-delay-before-ms", "2",
                           "--tag", "4x:0", "--cycles", "1")
            port = rig.path("master")
        # The kernel's reason; qemu-user knows no TIOCSRS485 and answers for the kernel.
        reason = "Function not implemented" if HOST_LAUNCHER else "Inappropriate ioctl for device"
        self.assertEqual(run.status, 2)
        self.assertEqual(run.stderr.strip(),
                         f"modbus-ascii-host: cannot put serial port {port} in RS-485 mode: "
                         f"{reason}")

    def test_bad_rs485_settings_name_the_option(self):
        for option, value, message in (
                ("--rts-delay-before-ms", "-1", "is not a whole number from 0 to 1000"),
                ("--rts-delay-after-ms", "5000", "is not a whole number from 0 to 1000"),
                ("--rts-on-send", "middle", "is not one of high, low")):
            run = run_host("--port", "/dev/null", "--rs485", option, value, "--tag", "4x:0")
            self.assertEqual(run.status, 2, option)
            self.assertIn(f"{option}: '{value}' {message}", run.stderr)


if __name__ == "__main__":
    run_tests()
