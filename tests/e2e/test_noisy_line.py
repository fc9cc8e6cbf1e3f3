#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""End-to-end tests on a noisy line: modbus-ascii-host against the pymodbus slave through
fault_relay.py, which drops, corrupts, cuts short, delays, misaddresses, lower-cases or
drowns in noise a share of the replies, and drops or refuses a share of the requests.

The host writes every kind of value (coils, single registers, register blocks, 32-bit values,
bits inside registers) while it polls tags the writes never touch and tags over the written
coils (and their neighbours) and registers. Afterwards:
- every write was reported, as done, failed or unconfirmed, and the slave's datastore agrees:
  done writes landed, failed ones did not, unconfirmed ones landed whole or not at all; a
  write that is not done shows the code it was given up with, and the write the relay always
  refuses is failed;
- no coil or register the host did not mean to write has changed;
- no value shown in any table differs from the slave's: untouched ones from the start, written
  ones from the value before or after their write, and in the last table from the end.

Run as test_e2e.py is run, with the fault rate and optionally "multi" (multi-station mode,
a cache per station) as the arguments:
    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_noisy_line.py 10 [multi]
"""
import json
import os
import subprocess
import sys
import time

from test_e2e import (HOST_COMMAND, LINE_SETTINGS, PYTHON, READY_TIMEOUT_S, E2ECase, HostRun, Rig,
                      die_with_parent, run_tests, split_words, stop_process)

RELAY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fault_relay.py")
# The late replies of the relay arrive 20 to 120 ms after the time-out, within the quiet gap.
TIMEOUT_MS = 250
LINE_TIMING = ["--timeout-ms", str(TIMEOUT_MS), "--char-timeout-ms", "100", "--quiet-ms", "200"]
HOST_TIMEOUT_S = 150
# The relay's random choices; another seed (MODBUS_NOISY_SEED) gives another run to repeat.
SEED = int(os.environ.get("MODBUS_NOISY_SEED", "8"))

# Written areas (station 1). Each target is written once, with a value other than its own.
COILS = range(0, 40)
SINGLE_REGISTERS = range(0, 40)
BLOCKS = [1000 + 5 * k for k in range(25)]    # four registers each, one untouched between
DOUBLES = [2000 + 3 * k for k in range(15)]   # two registers each, one untouched between
BIT_REGISTERS = range(3000, 3030)             # one bit each
REFUSED = 9000                                # the relay refuses every write to it


def initial_coil(address):
    return 1 if address % 3 == 0 else 0


def initial_data():
    holding = {a: 100 + a for a in SINGLE_REGISTERS}
    for k, first in enumerate(BLOCKS):
        holding.update({first + j: 0x1000 + 16 * k + j for j in range(4)})
        holding[first + 4] = 0x5555
    for k, first in enumerate(DOUBLES):
        holding.update({first: 0x0101 * (k + 1), first + 1: 0x2020, first + 2: 0x7777})
    holding.update({a: 0x0F0F ^ (a - 3000) for a in BIT_REGISTERS})
    holding.update({4000 + i: 0x4000 + 3 * i for i in range(20)})  # polled only
    holding[4100] = 0b1010_0110_0011_1001                           # polled only
    coils = {a: initial_coil(a) for a in COILS}
    coils.update({5000 + i: (i * 5 + 1) % 2 for i in range(32)})     # polled only
    inputs = {i: 1000 + 7 * i for i in range(30)}                    # polled only
    inputs.update({40: 1, 41: 0x86A0, 42: 0xFFFF, 43: 0xFFFE})       # 100000, 0xFFFFFFFE
    return {"co": coils, "hr": holding, "ir": inputs, "di": {}}


def pymodbus_config(data):
    return {"stations": {"1": {table: {str(a): [v] for a, v in values.items()}
                               for table, values in data.items()}}}


def planned_writes(data):
    """(option, [(table, address, value before, value written)]) for every write."""
    holding = data["hr"]
    writes = [(f"0x:{a}={1 - initial_coil(a)}", [("co", a, initial_coil(a), 1 - initial_coil(a))])
              for a in COILS]
    writes += [(f"4x:{a}={20000 + a}", [("hr", a, holding[a], 20000 + a)])
               for a in SINGLE_REGISTERS]
    for first in BLOCKS:
        values = [30000 + first + j for j in range(4)]
        writes.append((f"4x:{first}=" + ",".join(map(str, values)),
                       [("hr", first + j, holding[first + j], values[j]) for j in range(4)]))
    for k, first in enumerate(DOUBLES):
        value = 0x12340000 + k
        writes.append((f"4x_double:{first}={value}",
                       [("hr", first + j, holding[first + j], w)
                        for j, w in enumerate(split_words(value))]))
    for register in BIT_REGISTERS:
        bit = register % 16
        before = holding[register]
        wanted = 0 if before >> bit & 1 else 1
        writes.append((f"4x_bit:{register}.{bit}={wanted}",
                       [("hr", register, before, before ^ (1 << bit))]))
    writes.append((f"4x:{REFUSED}=1", [("hr", REFUSED, 0, 1)]))
    return writes


POLLED = ["--tag", "0x:5000:32", "--tag", "3x:0:30", "--tag", "4x:4000:20",
          "--tag", "3x_double:40:4", "--tag", "4x_bit:4100.0:16",
          "--once", "4x:4005:5", "--once", "3x:10:4"]
# Tags over written coils (and eight neighbours never written), single registers and the
# registers written bit by bit: (table, first address, count) by row name.
POLLED_WRITTEN = {"0x:0": ("co", 0, 48), "4x:0": ("hr", 0, 40), "4x:3000": ("hr", 3000, 30)}


def expected_rows(data):
    """What the slave holds for every polled tag and one-shot read, by table row name."""
    coils, holding, inputs = data["co"], data["hr"], data["ir"]
    return {
        "0x:5000": [coils[5000 + i] for i in range(32)],
        "3x:0": [inputs[i] for i in range(30)],
        "4x:4000": [holding[4000 + i] for i in range(20)],
        "3x_double:40": [100000, 0xFFFFFFFE],
        "4x_bit:4100.0": [holding[4100] >> b & 1 for b in range(16)],
        "4x:4005": [holding[4005 + i] for i in range(5)],
        "3x:10": [inputs[10 + i] for i in range(4)],
    }


class NoisyRig(Rig):
    """The host's pseudo-terminal pair and the slave's, with the relay between them."""

    def __init__(self, slave_config, fault_rate, seed, *relay_arguments):
        super().__init__(slave_config)
        self.relay_arguments = ["--fault-rate", str(fault_rate), "--seed", str(seed),
                                "--late-after-ms", str(TIMEOUT_MS),
                                "--refuse-address", str(REFUSED), *relay_arguments]
        self.relay = None

    pairs = (("master", "relay-host"), ("relay-slave", "slave"))

    def host_side(self):
        """The relay's arguments for its end towards the host."""
        return ["--host-side", self.path("relay-host")]

    def start_socat(self):
        for one, other in self.pairs:
            self.spawn(["socat", f"pty,raw,echo=0,link={self.path(one)}",
                        f"pty,raw,echo=0,link={self.path(other)}"], stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + READY_TIMEOUT_S
        names = [name for pair in self.pairs for name in pair]
        while not all(os.path.exists(self.path(name)) for name in names):
            if time.monotonic() > deadline:
                raise RuntimeError("socat did not create the pseudo-terminal pairs")
            time.sleep(0.02)

    def start_slave(self):
        super().start_slave()
        self.relay = self.spawn(
            [PYTHON, RELAY, *self.host_side(),
             "--slave-side", self.path("relay-slave"), "--stats", self.path("relay.json"),
             *self.relay_arguments], stdout=subprocess.PIPE, text=True)
        if not self.relay.stdout.readline().startswith("ready"):
            raise RuntimeError("the fault relay did not start")

    def relay_counts(self):
        stop_process(self.relay)
        with open(self.path("relay.json"), encoding="utf-8") as stream:
            return json.load(stream)

    def noisy_host(self, *arguments):
        completed = subprocess.run(
            [*HOST_COMMAND, "--format", "json", "--port", self.path("master"), *LINE_SETTINGS,
             *LINE_TIMING, *arguments], capture_output=True, text=True,
            timeout=HOST_TIMEOUT_S, preexec_fn=die_with_parent)
        return HostRun(completed)


def written_tags():
    return [a for name, (_, _, count) in POLLED_WRITTEN.items()
            for a in ("--tag", f"{name}:{count}")]


class LineChecks(E2ECase):
    """The checks of a run on a faulty line: every write's outcome against the datastore, and
    no wrong value in any table."""

    def assert_writes_reported_truly(self, run, writes, store):
        reported = [o["write"] for o in run.objects if "write" in o]
        self.assertEqual([w["text"] for w in reported], [option for option, _ in writes])
        for (option, cells), result in zip(writes, reported):
            outcome = result["outcome"]
            held = [store[table].get(address, 0) for table, address, _, _ in cells]
            before = [cell[2] for cell in cells]
            written = [cell[3] for cell in cells]
            expected = {"done": [written], "failed": [before], "unconfirmed": [before, written]}
            self.assertIn(outcome, expected, option)
            self.assertIn(held, expected[outcome], f"{option} reported {outcome}")
            for request in result["notDone"]:
                self.assertNotEqual(request["code"], 0, f"{option}: no reason shown")

    def assert_untouched_cells_kept(self, writes, data, store):
        targets = {(table, address) for _, cells in writes for table, address, _, _ in cells}
        for table in ("co", "di", "ir", "hr"):
            for address in set(store[table]) | set(data[table]):
                if (table, address) not in targets:
                    self.assertEqual(store[table].get(address, 0), data[table].get(address, 0),
                                     f"{table} {address} changed")

    def assert_tables_show_the_slaves_values(self, run, rows):
        """Every confirmed value shown equals the slave's, and every row was confirmed once."""
        shown = set()
        for table in (o["values"] for o in run.objects if "values" in o):
            for row in table:
                if row["values"] is not None and row["name"] in rows:
                    self.assertEqual(row["values"], rows[row["name"]], row["name"])
                    shown.add(row["name"])
        self.assertEqual(shown, set(rows))


class NoisyLineTests(LineChecks):
    fault_rate = 0.1
    mode = []

    def check_written_rows(self, tables, data, writes, store):
        """Written coils and registers: any value before or after the write, the end's in the
        last table."""
        after = {(t, a): w for _, cells in writes for t, a, _, w in cells}
        for number, table in enumerate(tables):
            for row in table:
                if row["name"] not in POLLED_WRITTEN or row["values"] is None:
                    continue
                area, first, count = POLLED_WRITTEN[row["name"]]
                for address, value in zip(range(first, first + count), row["values"]):
                    held = store[area].get(address, 0)
                    allowed = {held} if number == len(tables) - 1 else {
                        data[area].get(address, 0), after.get((area, address), held)}
                    self.assertIn(value, allowed, f"{row['name']} {address} in table {number}")

    def test_writes_are_reported_truly_and_tables_show_only_the_slaves_values(self):
        data = initial_data()
        writes = planned_writes(data)
        started = time.monotonic()
        with NoisyRig(pymodbus_config(data), self.fault_rate, SEED) as rig:
            run = rig.noisy_host("--cycles", "2", *self.mode, *POLLED, *written_tags(),
                                 *[a for option, _ in writes for a in ("--write", option)])
            relay = rig.relay_counts()
            store = rig.datastore()[1]
        elapsed = time.monotonic() - started
        summary = run.summary()
        print(f"\nfigures at {self.fault_rate:.0%} {self.mode}, seed {SEED}: {elapsed:.1f} s, "
              f"relay {relay}, writes {summary['writes']}, abandoned {summary['abandoned']}, "
              f"transactions {summary['transactions']}, retried {summary['retried']}, "
              f"set aside {summary['strayFrames']}", file=sys.stderr)
        self.assertIn(run.status, (0, 1), run.stderr)
        self.assertGreater(relay.get("replies late", 0) + relay.get("replies corrupted", 0), 0)

        reported = [o["write"] for o in run.objects if "write" in o]
        self.assert_writes_reported_truly(run, writes, store)
        self.assertEqual(reported[-1]["outcome"], "failed")  # the write the relay refuses
        self.assert_untouched_cells_kept(writes, data, store)
        self.assert_tables_show_the_slaves_values(run, expected_rows(data))
        self.check_written_rows([o["values"] for o in run.objects if "values" in o], data,
                                writes, store)

        not_good = sum(n for k, n in summary["writes"].items() if k != "done")
        self.assertEqual(run.status, 1 if not_good or summary["abandoned"] else 0)


if __name__ == "__main__":
    NoisyLineTests.fault_rate = int(sys.argv.pop(1)) / 100
    if len(sys.argv) > 1 and sys.argv[1] == "multi":
        NoisyLineTests.mode = ["--multi-station"]
        sys.argv.pop(1)
    run_tests()
