#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""modbus-ascii-host --version: the project's version, the Qt flavour, and the path and version
of the driver library the tool really loaded (links resolved). Needs no line and no slave.

    MODBUS_HOST=build/modbus-ascii-host MODBUS_VERSION=1.0.0 MODBUS_QT_MAJOR=5 \\
        /usr/bin/python3 tests/e2e/test_version.py
"""
import os
import shutil
import subprocess
import tempfile
import unittest

from test_e2e import HOST, HOST_COMMAND, HOST_TIMEOUT_S

VERSION = os.environ.get("MODBUS_VERSION", "")
QT_MAJOR = os.environ.get("MODBUS_QT_MAJOR", "")


def host_version(*arguments):
    completed = subprocess.run([*HOST_COMMAND, "--version", *arguments], capture_output=True,
                               text=True, timeout=HOST_TIMEOUT_S, check=False)
    return completed.returncode, completed.stdout.splitlines(), completed.stderr


class VersionTests(unittest.TestCase):
    def assertVersionLines(self, lines, library_line):
        self.assertEqual(len(lines), 3, lines)
        self.assertEqual(lines[0], f"modbus-ascii-host {VERSION}")
        self.assertRegex(lines[1], rf"^Qt flavour: Qt {QT_MAJOR} \(built with Qt {QT_MAJOR}\."
                                   rf"[0-9]+\.[0-9]+, running on Qt {QT_MAJOR}\.[0-9]+\.[0-9]+\)$")
        self.assertEqual(lines[2], library_line)

    def test_the_library_beside_the_tool_is_named_with_its_version(self):
        status, lines, stderr = host_version()
        self.assertEqual(status, 0, stderr)
        library = os.path.join(os.path.dirname(os.path.realpath(HOST)),
                               f"libModbus_ASCII_Master.so.{VERSION}")
        self.assertVersionLines(lines, f"driver library: {library} (version {VERSION})")

    def test_the_library_given_is_followed_to_the_file_that_was_loaded(self):
        beside = os.path.join(os.path.dirname(HOST), "libModbus_ASCII_Master.so.1")
        with tempfile.TemporaryDirectory() as directory:
            directory = os.path.realpath(directory)
            shutil.copy(beside, os.path.join(directory, "libModbus_ASCII_Master.so.1.7.3"))
            os.symlink("libModbus_ASCII_Master.so.1.7.3",
                       os.path.join(directory, "libModbus_ASCII_Master.so.1"))
            status, lines, stderr = host_version(
                "--library", os.path.join(directory, "libModbus_ASCII_Master.so.1"))
        self.assertEqual(status, 0, stderr)
        self.assertVersionLines(lines, f"driver library: {directory}/"
                                       "libModbus_ASCII_Master.so.1.7.3 (version 1.7.3)")


if __name__ == "__main__":
    unittest.main(verbosity=2)
