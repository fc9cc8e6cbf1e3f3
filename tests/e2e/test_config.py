#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""modbus-ascii-host --config: every example configuration loads (--print-config shows it back,
--plan merges its variables), and a run from a file against the pymodbus slave reads what the
same variables read from the tag file.

    MODBUS_HOST=build/modbus-ascii-host MODBUS_EXAMPLES=examples MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/test_config.py
"""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import tomllib
import unittest

from test_e2e import EXAMPLES, HOST_COMMAND, HOST_TIMEOUT_S, E2ECase, Rig, \
    prerequisites_missing


def host(*arguments):
    return subprocess.run([*HOST_COMMAND, *arguments], capture_output=True, text=True,
                          timeout=HOST_TIMEOUT_S, check=False)


def example_configurations():
    return sorted(glob.glob(os.path.join(EXAMPLES, "*.toml")))


class ExampleTests(unittest.TestCase):
    def test_there_is_an_example(self):
        self.assertIn("panel.toml", [os.path.basename(p) for p in example_configurations()])

    def test_print_config_gives_back_every_setting_of_each_example(self):
        for path in example_configurations():
            with self.subTest(path=path):
                completed = host("--config", path, "--print-config")
                self.assertEqual(completed.returncode, 0, completed.stderr)
                printed = tomllib.loads(completed.stdout)
                with open(path, "rb") as stream:
                    given = tomllib.load(stream)
                writes = given.pop("writes", [])
                self.assertEqual(printed.pop("write", []), [
                    f"{w['area']}:{w['address']}" + (f":{w['station']}" if "station" in w else "")
                    + "=" + ",".join(str(v) for v in w["values"]) for w in writes])
                self.assertEqual(printed, given)

    def test_each_example_plans_its_variables(self):
        for path in example_configurations():
            with self.subTest(path=path):
                completed = host("--config", path, "--plan", "--format", "json")
                self.assertEqual(completed.returncode, 0, completed.stderr)
                self.assertTrue(json.loads(completed.stdout)["plan"])

    def test_the_panel_example_plans_exactly_these_reads(self):
        completed = host("--config", os.path.join(EXAMPLES, "panel.toml"), "--plan",
                         "--format", "json")
        self.assertEqual(completed.returncode, 0, completed.stderr)
        self.assertEqual(json.loads(completed.stdout)["plan"], [
            {"address": 0, "area": "0x", "function": 1, "quantity": 8, "station": 1},
            {"address": 0, "area": "3x", "function": 4, "quantity": 11, "station": 1},
            {"address": 20, "area": "4x_double", "function": 3, "quantity": 2, "station": 1},
        ])


class RunTests(E2ECase):
    def test_a_run_from_the_file_reads_the_demo_slave(self):
        with open(os.path.join(EXAMPLES, "demo_slave.json"), encoding="utf-8") as stream:
            config = json.load(stream)
        with Rig(config) as rig:
            run = rig.host("--config", os.path.join(EXAMPLES, "panel.toml"), "--cycles", "1")
        self.assertCompleted(run)
        self.assertEqual({name: values for (name, _), values in run.last_values().items()}, {
            "pump_running": [1, 0, 1, 1, 0, 0, 1, 0],
            "temperature_x10": [215, 223, 198, 305],
            "alarm_bits": [1, 0, 0, 1, 0, 1],
            "batch_count": [1234567],
        })

    def test_a_bad_file_stops_the_tool_with_its_line_and_key(self):
        directory = tempfile.mkdtemp(prefix="modbus-config-")
        self.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "bad.toml")
        with open(path, "w", encoding="utf-8") as stream:
            stream.write('port = "/dev/null"\n\ntimeout-ms = "soon"\n')
        completed = host("--config", path)
        self.assertEqual(completed.returncode, 2)
        self.assertEqual(completed.stderr.strip(), f"modbus-ascii-host: {path}:3: --timeout-ms: "
                         "'soon' is not a whole number from 1 to 2147483647")


if __name__ == "__main__":
    if prerequisites_missing():
        sys.exit(77)
    unittest.main()
