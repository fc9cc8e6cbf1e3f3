#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests: a value the host shows as confirmed is one the slave gave, a write the
slave carried out is never reported failed, and the host ends, and stays small, whatever the
line does.

Each test drives modbus-ascii-host against the small scripted slave of scripted_slave.py on
a pseudo-terminal (or the pymodbus slave, where its faults suffice):
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_confirmed.py [TestName ...]
"""
import json
import signal
import subprocess
import time
import unittest

from scripted_slave import ScriptedSlave
from test_e2e import (HOST_COMMAND, HOST_LAUNCHER, HOST_TIMEOUT_S, LINE_SETTINGS, E2ECase,
                      HostRun, die_with_parent, run_tests)

TIMING = ["--timeout-ms", "300", "--char-timeout-ms", "100", "--quiet-ms", "100"]
# A run that never ends by itself is given this long before the test calls it hung.
HUNG_AFTER_S = 20
STOP_WITHIN_S = 1.0


def host_on(port, *arguments, timeout=HOST_TIMEOUT_S):
    completed = subprocess.run(
        [*HOST_COMMAND, "--format", "json", "--port", port, *LINE_SETTINGS, *TIMING,
         *arguments], capture_output=True, text=True, timeout=timeout,
        preexec_fn=die_with_parent)
    return HostRun(completed)


def start_host(port, *arguments):
    return subprocess.Popen(
        [*HOST_COMMAND, "--format", "json", "--port", port, *LINE_SETTINGS, *TIMING,
         *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        preexec_fn=die_with_parent)


def stop_host(process, after_s):
    """SIGTERM after after_s; the finished run and the seconds it took to end, or None for
    the run when it did not end within HUNG_AFTER_S (it is then killed)."""
    time.sleep(after_s)
    process.send_signal(signal.SIGTERM)
    signalled = time.monotonic()
    try:
        stdout, stderr = process.communicate(timeout=HUNG_AFTER_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        return None, None
    took = time.monotonic() - signalled
    return HostRun(subprocess.CompletedProcess([], process.returncode, stdout, stderr)), took


def fillers(count, first=100, station=None):
    """Writes that go well, so that the scheduler's bursts of five put a later write where a
    test wants it."""
    suffix = f":{station}" if station else ""
    return [a for i in range(count) for a in ("--write", f"4x:{first + i}{suffix}={i + 1}")]


class ConfirmedValueTests(E2ECase):
    def test_a_write_built_after_an_abandoned_request_does_not_confirm_the_old_value(self):
        # Five fillers, the read of register 10 (10), five fillers, the read of silent station
        # 5 (abandoned), then the write of 999: the driver builds it without touching its
        # cache, which still holds 10 when the slave acknowledges 999.
        with ScriptedSlave(holding={1: {10: 10}}) as slave:
            run = host_on(slave.port, "--multi-station", "--retries", "0", "--cycles", "1",
                          "--once-table", "--trace", "--tag", "4x:10:1:1", "--tag", "4x:0:1:5",
                          *fillers(10, station=1), "--write", "4x:10:1=999")
            held = slave.holding[1][10]
        self.assertEqual(held, 999)
        trace = run.stderr.splitlines()
        write = next(i for i, line in enumerate(trace) if " TX :0106000A03E705" in line)
        self.assertTrue(trace[write - 1].endswith("-> 41 no reply"), run.stderr)
        self.assertIn(run.last_values()[("4x:10", 1)], (None, [999]))

    def test_a_short_coil_reply_does_not_show_its_lrc_as_the_next_coils(self):
        coils = {1: {0: 1, 2: 1, 3: 1}}  # coils 8 to 23 are 0
        for mode in ([], ["--multi-station"]):
            with self.subTest(mode=mode), ScriptedSlave(coils=coils) as slave:
                run = host_on(slave.port, *mode, "--cycles", "1", "--once", "0x:8:8",
                              "--tag", "0x:0:8")
                self.assertCompleted(run)
                values = run.last_values()
                self.assertEqual(values[("0x:0", 1)], [1, 0, 1, 1, 0, 0, 0, 0])
                # One-station mode: the reply's LRC lands on coils 8 to 15, which are then not
                # confirmed; with a cache per station they keep the slave's zeros.
                expected = [[0] * 8] if mode else [None, [0] * 8]
                self.assertIn(values[("0x:8", 1)], expected)

    def test_a_write_stopped_during_its_retries_is_not_shown_as_confirmed(self):
        with ScriptedSlave(holding={1: {10: 10}}, unanswered_writes={(1, 10)}) as slave:
            process = start_host(slave.port, "--retries", "1000", "--once-table",
                                 "--tag", "4x:10", *fillers(5), "--write", "4x:10=999")
            run, _ = stop_host(process, 2.0)
            held = slave.holding[1][10]
        self.assertIsNotNone(run, "the host did not end after SIGTERM")
        self.assertEqual(held, 10)
        self.assertIn(run.last_values()[("4x:10", 1)], (None, [10]))
        outcomes = {o["write"]["text"]: o["write"]["outcome"] for o in run.objects if "write" in o}
        self.assertEqual(outcomes["4x:10=999"], "unconfirmed")

    def test_a_line_that_keeps_a_frame_open_does_not_hold_the_host(self):
        with ScriptedSlave(chatter=(b"T: 1\r", 0.01)) as slave:
            process = start_host(slave.port, "--tag", "4x:0", "--duration", "60")
            run, took = stop_host(process, 1.5)
        self.assertIsNotNone(run, "the host did not end after SIGTERM")
        self.assertLess(took, STOP_WITHIN_S)
        summary = run.summary()
        self.assertTrue(summary["interrupted"])
        self.assertGreater(summary["noiseCharacters"] + sum(summary["strayFrames"].values()), 0)
        self.assertEqual(run.last_values()[("4x:0", 1)], None)

    def test_a_write_acknowledged_in_lower_case_is_not_reported_failed(self):
        # The echo of register 10 = 1 has the LRC EE: the driver rejects it in lower case.
        with ScriptedSlave(holding={1: {10: 10}}, lowercase_writes=True) as slave:
            run = host_on(slave.port, "--retries", "0", "--cycles", "1",
                          "--tag", "4x:10", "--write", "4x:10=1")
            held = slave.holding[1][10]
        self.assertEqual(held, 1)
        self.assertCompleted(run, status=1)  # not acknowledged: unconfirmed, not done
        write = next(o["write"] for o in run.objects if "write" in o)
        self.assertEqual(write["outcome"], "unconfirmed")
        self.assertEqual(write["notDone"][0]["code"], 11)
        self.assertEqual(run.last_values()[("4x:10", 1)], [1])  # the read confirms it

    def test_more_one_shot_reads_than_the_driver_queues_are_refused(self):
        with ScriptedSlave() as slave:
            try:
                run = host_on(slave.port, "--max-frame-words", "1", "--cycles", "1",
                              "--once", "4x:0:1030", "--once", "4x:5000:1", "--tag", "4x:0",
                              timeout=HUNG_AFTER_S)
            except subprocess.TimeoutExpired:
                self.fail("the host waits for one-shot reads the driver dropped")
        self.assertEqual(run.status, 2)
        self.assertIn("the --once reads take 1031 requests", run.stderr)
        self.assertIn("the driver queues at most 1024", run.stderr)

    @unittest.skipIf(HOST_LAUNCHER, "an emulator's own memory would be measured")
    def test_memory_stays_flat_at_full_speed(self):
        # Measured, not timed: resident memory after the first seconds and at the end of a
        # run at full speed. One response time kept per transaction made it grow by about
        # 10 kB a second; bounded statistics keep it within the allocator's noise.
        with ScriptedSlave(holding={1: {0: 7}}) as slave:
            process = start_host(slave.port, "--tag", "4x:0", "--duration", "20",
                                 "--once-table")
            samples = resident_kilobytes(process, at_s=(4, 19))
            stdout, stderr = process.communicate(timeout=HOST_TIMEOUT_S)
        summary = HostRun(subprocess.CompletedProcess([], process.returncode, stdout,
                                                      stderr)).summary()
        growth = samples[1] - samples[0]
        print(f"\nresident memory at 4 s {samples[0]} kB, at 19 s {samples[1]} kB "
              f"(+{growth} kB), {summary['transactions']} transactions")
        self.assertGreater(summary["transactions"], 1000)
        self.assertLess(growth, 64)


def resident_kilobytes(process, at_s):
    """VmRSS of the process at each of the given seconds after now."""
    started = time.monotonic()
    samples = []
    for moment in at_s:
        time.sleep(max(0.0, started + moment - time.monotonic()))
        with open(f"/proc/{process.pid}/status", encoding="utf-8") as status:
            line = next(l for l in status if l.startswith("VmRSS:"))
        samples.append(int(line.split()[1]))
    return samples


class WriteOutcomeTests(E2ECase):
    def test_a_write_refused_every_time_is_failed_and_the_slave_kept_its_value(self):
        with ScriptedSlave(holding={1: {10: 10, 11: 11}}, refused_writes={(1, 10)}) as slave:
            run = host_on(slave.port, "--retries", "1", "--write", "4x:10=5",
                          "--write", "4x:11=6")
            held = (slave.holding[1][10], slave.holding[1][11])
        self.assertCompleted(run, status=1)
        self.assertEqual([o["write"]["outcome"] for o in run.objects if "write" in o],
                         ["failed", "done"])
        self.assertEqual(held, (10, 6))


if __name__ == "__main__":
    run_tests()
