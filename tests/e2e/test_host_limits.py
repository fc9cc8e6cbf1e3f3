#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests of the host tool's limits: bad input is refused with status 2 and a message
that names where and what, frames stay within Modbus limits, a write longer than the driver's
write queue is written whole, and every request gets its own retries.

Run as test_e2e.py is run:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_host_limits.py
"""
import os
import tempfile

from test_e2e import REPLY_TIMEOUT, E2ECase, Rig, run_host, run_tests

AREAS = "areas: 0x, 1x, 3x, 4x, 3x_bit, 4x_bit, 3x_double, 4x_double"


class BadInputTests(E2ECase):
    def assertRefused(self, run, message):
        self.assertEqual(run.status, 2, run.stderr)
        self.assertIn(message, run.stderr)

    def test_bad_options_are_refused_naming_the_problem(self):
        cases = [
            (["--tag", "5x:1"], "--tag '5x:1': Didn't have this register! (area '5x'; " + AREAS),
            (["--tag", "4x_double:65534:4"],
             "span of 4 registers from 65534 runs past the top of area 4x_double (65535)"),
            (["--tag", "4x_bit:65535.15:2"],
             "span of 2 bits from 65535.15 runs past the top of area 4x_bit (65535.15)"),
            (["--station", "0", "--tag", "4x:1"], "station 0 is the broadcast address"),
            (["--multi-station", "--once", "4x:1:1:0"],
             "--once '4x:1:1:0': station 0 is the broadcast address"),
            (["--duration", "nan", "--tag", "4x:1"], "--duration: 'nan' is not a positive"),
            (["--duration", "inf", "--tag", "4x:1"], "--duration: 'inf' is not a positive"),
            (["--duration", "-2", "--tag", "4x:1"], "--duration: '-2' is not a positive"),
            (["--max-frame-words", "126", "--tag", "4x:1"],
             "--max-frame-words: 126 breaks the Modbus limit of 125 registers in one read"),
            (["--max-frame-words", "1", "--write", "4x_double:10=70000"],
             "--write 4x_double:10=70000: a 32-bit value takes 2 registers of one frame, more "
             "than --max-frame-words 1 allows"),
        ]
        for arguments, message in cases:
            with self.subTest(arguments=arguments):
                self.assertRefused(run_host("--plan", *arguments), message)

    def test_damaged_or_empty_tag_files_are_refused_with_file_and_line(self):
        cases = [
            (b"name,station,area,address,length\nok,1,4x,1,1\x00\nbad,1,zz,1,1\n",
             "tags.csv:2: control character 0x00 at column 12"),
            (b"name,station,area,address,length\nok,1,4x,1,1\nesc\x1b,1,4x,2,1\n",
             "tags.csv:3: control character 0x1b at column 4"),
            (b"name,station,area,address,length\n", "tags.csv:2: no variables in the tag file"),
            (b"", "tags.csv:1: no variables in the tag file (expected the header"),
        ]
        with tempfile.TemporaryDirectory() as directory:
            tags = os.path.join(directory, "tags.csv")
            for contents, message in cases:
                with self.subTest(contents=contents):
                    with open(tags, "wb") as stream:
                        stream.write(contents)
                    self.assertRefused(run_host("--plan", "--tags", tags), message)

    def test_a_tag_file_with_crlf_line_ends_is_read(self):
        with tempfile.TemporaryDirectory() as directory:
            tags = os.path.join(directory, "tags.csv")
            with open(tags, "wb") as stream:
                stream.write(b"name,station,area,address,length\r\nok,1,4x,1,1\r\n")
            self.assertCompleted(run_host("--plan", "--tags", tags))


class FrameLimitTests(E2ECase):
    def test_a_write_longer_than_the_drivers_queue_lands_whole(self):
        values = [(i * 7 + 3) % 2 for i in range(2000)]
        with Rig({"stations": {"1": {}}}) as rig:
            run = rig.host("--write", "0x:0=" + ",".join(map(str, values)))
            store = rig.datastore()[1]
        self.assertCompleted(run)
        write = next(o["write"] for o in run.objects if "write" in o)
        self.assertEqual((write["outcome"], write["requests"]), ("done", {"done": 2000}))
        self.assertEqual(store["co"], {a: 1 for a, v in enumerate(values) if v})

    def test_register_writes_stay_within_123_registers_and_reads_within_125(self):
        with Rig({"stations": {"1": {"hr": {"0": list(range(1, 251))}}}}) as rig:
            run = rig.host("--trace", "--cycles", "1", "--tag", "4x:0:250",
                           "--write", "4x:1000=" + ",".join(str(v) for v in range(250)),
                           "--write", "4x_double:2000=" + ",".join(str(v) for v in range(62)))
            store = rig.datastore()[1]
        self.assertCompleted(run)
        frames = run.sent_frames()
        # (function, address, quantity) of every request, in hex as on the wire.
        requests = [(f[3:5], f[5:9], f[9:13]) for f in frames]
        self.assertEqual([r for r in requests if r[0] == "10"],
                         [("10", "03E8", "007B"), ("10", "0463", "007B"), ("10", "04DE", "0004"),
                          ("10", "07D0", "007A"), ("10", "084A", "0002")])
        self.assertEqual([r for r in requests if r[0] == "03"],
                         [("03", "0000", "007D"), ("03", "007D", "007D")])
        self.assertEqual([store["hr"].get(1000 + i, 0) for i in range(250)], list(range(250)))
        self.assertEqual(store["hr"].get(2000 + 2 * 61 + 1), 61)  # the last 32-bit value's low half


class RetryTests(E2ECase):
    # Each station stays silent once: the first request to station 1 and then the first to
    # station 2 fail once each, with a good reply in between.
    SLAVE = {"stations": {"1": {"hr": {"0": [11]}}, "2": {"hr": {"0": [22]}}},
             "faults": [{"station": 1, "kind": "silence"}, {"station": 2, "kind": "silence"}]}
    ARGUMENTS = ["--multi-station", "--retries", "1", *REPLY_TIMEOUT, "--cycles", "1",
                 "--tag", "4x:0:1:1", "--tag", "4x:0:1:2"]

    def test_every_request_gets_its_own_retries(self):
        with Rig(self.SLAVE) as rig:
            run = rig.host(*self.ARGUMENTS)
        self.assertCompleted(run)
        summary = run.summary()
        self.assertEqual((summary["retried"], summary["abandoned"]), (2, {}))
        self.assertEqual(run.last_values(), {("4x:0", 1): [11], ("4x:0", 2): [22]})

    def test_shared_retries_abandon_the_second_request_at_its_first_failure(self):
        with Rig(self.SLAVE) as rig:
            run = rig.host("--shared-retries", *self.ARGUMENTS)
        self.assertCompleted(run, status=1)
        summary = run.summary()
        self.assertEqual((summary["retried"], summary["abandoned"]), (1, {"41": 1}))
        self.assertEqual(run.last_values(), {("4x:0", 1): [11], ("4x:0", 2): None})


if __name__ == "__main__":
    run_tests()
