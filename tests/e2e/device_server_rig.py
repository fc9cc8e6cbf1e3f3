#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The rig of the network link tests and their benchmark: the end-to-end tests' rig (the
simulated slave on a socat pseudo-terminal pair) with Debian's ser2net serving the host's end,
raw or with RFC 2217, started in the foreground with a configuration file of its own on a free
loopback port; tcp_relay.py between them when asked; and a network namespace of its own for
what must not touch the machine's loopback.
"""
import os
import select
import socket
import subprocess
import time

from test_e2e import LINE_SETTINGS, PYTHON, Rig, run_host

RELAY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tcp_relay.py")
READY_TIMEOUT_S = 10
RUN_TIMEOUT_S = 60
# What the tests poll, write and read once; the writes put back what the slave holds, so that
# every run sees the same values.
SLAVE = {"stations": {"1": {"hr": {"0": [0x1234, 0x5678, 0xFF00, 0x00FF], "20": [7, 8]},
                            "co": {"0": [1, 0, 1, 1, 0, 0, 1, 0]},
                            "ir": {"10": [100, 101, 102]}}}}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def read_line(process, timeout_s):
    ready, _, _ = select.select([process.stdout], [], [], timeout_s)
    return process.stdout.readline() if ready else ""


class DeviceServerRig(Rig):
    """The rig with ser2net serving the host's end of the pseudo-terminal pair."""

    def __init__(self, *arguments):
        super().__init__(SLAVE, *arguments)
        self.ser2net = None

    def start_ser2net(self, mode, port=None, chardelay=True):
        """ser2net raw ("tcp") or with RFC 2217 ("rfc2217") on port (a free one if None);
        without chardelay it sends what the line brings at once."""
        port = port or free_port()
        accepter = "telnet(rfc2217),tcp" if mode == "rfc2217" else "tcp"
        configuration = self.path(f"ser2net-{port}.yaml")
        with open(configuration, "w", encoding="utf-8") as stream:
            stream.write(f"connection: &line\n"
                         f"  accepter: {accepter},127.0.0.1,{port}\n"
                         f"  connector: serialdev,{self.path('master')},9600n81,local\n"
                         f"  options:\n"
                         f"    chardelay: {str(chardelay).lower()}\n")
        with open(self.path("ser2net.log"), "a", encoding="utf-8") as log:
            self.ser2net = self.spawn(["ser2net", "-n", "-u", "-c", configuration,
                                       "-P", self.path("ser2net.pid")],
                                      stdout=log, stderr=log)
        self.wait_listening(port)
        return f"{mode}://127.0.0.1:{port}"

    def kill_ser2net(self):
        self.ser2net.kill()
        self.ser2net.wait()

    def wait_listening(self, port):
        """Until a socket listens on port, seen in /proc without connecting to it."""
        entry = f":{port:04X} 00000000:0000 0A"
        deadline = time.monotonic() + READY_TIMEOUT_S
        while time.monotonic() < deadline:
            with open("/proc/net/tcp", encoding="ascii") as table:
                if entry in table.read():
                    return
            time.sleep(0.02)
        raise RuntimeError(f"nothing listens on port {port}")

    def relay(self, *arguments, namespace=()):
        """tcp_relay.py with arguments; returns its process and its URL's host:port."""
        process = self.spawn([*namespace, PYTHON, RELAY, *arguments], stdout=subprocess.PIPE,
                             text=True)
        line = read_line(process, READY_TIMEOUT_S)
        if not line.startswith("ready "):
            raise RuntimeError("the relay did not start")
        return process, f"127.0.0.1:{line.split()[1]}"

    def private_network_namespace(self):
        """The nsenter command into a network namespace of its own, once it is not this one:
        what the test does to its loopback must never reach the machine's."""
        holder = self.spawn(["unshare", "-n", "sleep", str(RUN_TIMEOUT_S)])
        ours = os.readlink("/proc/self/ns/net")
        deadline = time.monotonic() + READY_TIMEOUT_S
        while os.readlink(f"/proc/{holder.pid}/ns/net") == ours:
            if time.monotonic() > deadline or holder.poll() is not None:
                raise RuntimeError("unshare made no network namespace")
            time.sleep(0.01)
        return ["nsenter", "-t", str(holder.pid), "-n"]

    def network_host(self, url, *arguments):
        return run_host("--port", url, *LINE_SETTINGS, *arguments)
