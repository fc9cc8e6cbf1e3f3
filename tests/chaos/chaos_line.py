#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The chaos line: the host's pseudo-terminal, an adapter, the wire and the stations of one
scenario (scenario.py), in one process.

    chaos_line.py --scenario run.json --host-link DIR/master --history history.json
    chaos_line.py --scenario run.json --tcp --history history.json

It makes the host's pseudo-terminal itself under --host-link (as fault_relay.py does, so
that it can take the port away and give it back under the same name), or with --tcp listens
on a loopback port as a serial device server would (one connection at a time; the port taken
away is the connection closed and new ones refused), and answers every
request from the stations of chaos_slave.py. While the scenario's faults last it spoils the
line: echoes garbled, requests lost or answered "busy" by nobody, replies dropped, garbled,
cut short, late, of another station, function, length or request, in lower case, or noise;
stations fall silent for a while; the port goes away and comes back. Meanwhile the stations'
values change on their own.

Every request is logged with the time it arrived and what became of it, every reply with
the time it went out; with the stations' history the log goes to --history (JSON) when the
line is stopped (SIGTERM or SIGINT). "ready" is printed once the host's port exists
("ready PORT" with --tcp).
"""
import argparse
import heapq
import json
import os
import random
import select
import signal
import socket
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "e2e"))

from chaos_slave import History, Station, word  # noqa: E402
from fault_relay import (NOISE, NOISE_EVERY_S, NOISE_FOR_S, HostPort, encode,  # noqa: E402
                         other_length)
from scripted_slave import decode  # noqa: E402

SLAVE_DEVICE_BUSY = 6
REPLACEMENTS = b"0123456789ABCDEF:\r\nZ"
POLL_S = 0.05
# A host that stops reading its port loses what the line cannot hand over in this time.
WRITE_PATIENCE_S = 0.5
REGISTER_TOP = 0xFFFF  # counters wrap there, random values stay below it


def write_within(descriptor, data, patience_s=WRITE_PATIENCE_S):
    """Writes data, or as much as the reader takes within patience_s; the bytes written."""
    deadline = time.monotonic() + patience_s
    written = 0
    while written < len(data) and time.monotonic() < deadline:
        try:
            written += os.write(descriptor, data[written:])
        except BlockingIOError:
            select.select([], [descriptor], [], POLL_S)
        except OSError:
            break
    return written


class PseudoTerminalPort(HostPort):
    """The host's pseudo-terminal: always connected while it exists."""

    def descriptors(self):
        return [self.master]

    def take_readable(self, readable):
        """Whether the host's data waits to be read."""
        return bool(readable)


class TcpPort:
    """The host's end as a device server's: one connection at a time on a loopback port."""

    def __init__(self, port=0):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", port))
        self.listener.listen(1)
        self.listener.setblocking(False)
        self.number = self.listener.getsockname()[1]
        self.connection = None

    @property
    def master(self):
        return self.connection.fileno() if self.connection else None

    def descriptors(self):
        return [self.connection.fileno() if self.connection else self.listener.fileno()]

    def take_readable(self, readable):
        """Accepts a connection that waits; whether the host's data waits to be read."""
        if not readable or self.connection:
            return bool(readable)
        try:
            self.connection, _ = self.listener.accept()
        except BlockingIOError:
            return False
        self.connection.setblocking(False)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return False

    def hung_up(self):
        """The host closed its connection: the next one is accepted."""
        self.connection.close()
        self.connection = None

    def close(self):
        if self.connection:
            self.connection.close()
        self.listener.close()


class ValueChanges:
    """The stations' own changes: counters that count on, cells set to random values."""

    def __init__(self, data, stations, rng, start):
        self.random = rng
        self.stations = stations
        self.due = []  # (time, sequence, station, kind, table, address, period)
        self.sequence = 0
        for number, settings in data.items():
            station = int(number)
            for table, address, period in settings["counters"]:
                self.schedule(start + period, station, "counter", table, address, period)
            if settings["changing"]:
                self.schedule(start, station, "random", None, None, 1 / settings["changesPerS"])
        self.changing = {int(n): s["changing"] for n, s in data.items()}

    def schedule(self, when, station, kind, table, address, period):
        self.sequence += 1
        heapq.heappush(self.due, (when, self.sequence, station, kind, table, address, period))

    def next_due(self):
        return self.due[0][0] if self.due else None

    def apply_due(self, now):
        while self.due and self.due[0][0] <= now:
            when, _, number, kind, table, address, period = heapq.heappop(self.due)
            station = self.stations[number]
            if kind == "counter":
                station.change(table, address, (station.value(table, address) + 1) & REGISTER_TOP)
                self.schedule(when + period, number, kind, table, address, period)
            else:
                table, address = self.random.choice(self.changing[number])
                top = 1 if table in ("co", "di") else REGISTER_TOP
                station.change(table, address, self.random.randint(0, top))
                self.schedule(when + self.random.expovariate(1 / period), number, kind, None,
                              None, period)


class ChaosLine:
    def __init__(self, scenario, link, tcp=False):
        self.scenario = scenario
        self.settings = scenario["line"]
        self.random = random.Random(scenario["seed"] * 7919 + 1)
        self.history = History()
        self.stations = {int(n): Station(int(n), self.initial_values(d), d["refused"],
                                         self.history, time.monotonic)
                         for n, d in scenario["data"].items()}
        self.start = time.monotonic()
        self.changes = ValueChanges(scenario["data"], self.stations,
                                    random.Random(scenario["seed"] * 7919 + 2), self.start)
        self.link = link
        self.tcp = tcp
        self.tcp_number = 0  # the loopback port, kept while the port is away
        self.port = self.open_port()
        self.pending = b""
        self.outgoing = []  # (due, sequence, bytes, request record or None)
        self.sequence = 0
        self.first_request_at = None
        self.port_down = []  # [[lost, back or None]]
        self.requests = []
        self.echoes = 0
        self.stopping = False

    def open_port(self, number=0):
        return TcpPort(number) if self.tcp else PseudoTerminalPort(self.link)

    @staticmethod
    def initial_values(data):
        return {table: {int(a): v for a, v in values.items()}
                for table, values in data["initial"].items()}

    # --- time and phases ---------------------------------------------------------------

    def since_first_request(self, now):
        return None if self.first_request_at is None else now - self.first_request_at

    def in_faults(self, now):
        elapsed = self.since_first_request(now)
        phases = self.settings["phases"]
        return (elapsed is not None
                and phases["prologueS"] <= elapsed < phases["prologueS"] + phases["faultsS"])

    def station_hears(self, station, now):
        if station not in self.stations or station in self.settings["silent"]:
            return False
        elapsed = self.since_first_request(now)
        return not any(s == station and start <= elapsed < end
                       for s, start, end in self.settings["dead"])

    # --- the host's side ---------------------------------------------------------------

    def send_later(self, due, data, record=None):
        self.sequence += 1
        heapq.heappush(self.outgoing, (due, self.sequence, data, record))

    def send_due(self, now):
        while self.outgoing and self.outgoing[0][0] <= now:
            _, _, data, record = heapq.heappop(self.outgoing)
            if self.port.master is None:
                continue  # nobody connected: lost on the way
            written = write_within(self.port.master, data)
            if record is not None and written == len(data):
                record["repliedAt"] = time.monotonic()

    def receive(self, now):
        try:
            data = os.read(self.port.master, 4096)
        except (BlockingIOError, OSError):
            return
        if not data and self.tcp:
            self.port.hung_up()
            self.pending = b""
            return
        self.pending += data
        while b"\n" in self.pending:
            frame, self.pending = self.pending.split(b"\n", 1)
            self.on_request(frame + b"\n", now)

    def lose_or_restore_port(self, now):
        loss = self.settings["portLoss"]
        elapsed = self.since_first_request(now)
        if loss is None or elapsed is None:
            return
        at, down = loss
        if not self.port_down and elapsed >= at:
            self.tcp_number = self.port.number if self.tcp else 0
            self.port.close()
            self.port = None
            self.outgoing = []  # replies on their way are lost with the port
            self.pending = b""
            self.port_down.append([now, None])
        elif self.port is None and elapsed >= at + down:
            self.port = self.open_port(self.tcp_number)
            self.port_down[-1][1] = now

    # --- requests and replies ----------------------------------------------------------

    def spoiled(self, frame):
        position = self.random.randrange(len(frame))
        replacement = self.random.choice([c for c in REPLACEMENTS if c != frame[position]])
        return frame[:position] + bytes([replacement]) + frame[position + 1:]

    def echo(self, frame, now):
        self.echoes += 1
        garble = (self.echoes == 1 and self.settings["firstEchoGarbled"]) or (
            self.in_faults(now) and self.random.random() < self.settings["echoFaultRate"])
        write_within(self.port.master, self.spoiled(frame) if garble else frame)

    def on_request(self, frame, now):
        if self.first_request_at is None:
            self.first_request_at = now
        record = {"time": now, "frame": frame.decode("latin-1").rstrip("\r\n"), "fate": None}
        self.requests.append(record)
        if self.settings["echo"] != "absent":
            self.echo(frame, now)
        request = decode(frame)
        if request is None:
            record["fate"] = "unreadable"
            return
        record.update(station=request[0], function=request[1])
        if len(request) >= 6:
            record.update(address=word(request, 2), quantity=word(request, 4))
        record["fate"] = self.deliver(request, record, now)

    def deliver(self, request, record, now):
        """What becomes of a request: its fate, and its reply scheduled."""
        faults = self.in_faults(now)
        chance = self.random.random()
        if faults and chance < self.settings["requestLoss"]:
            return "lost"
        station = request[0]
        if faults and chance < self.settings["requestLoss"] + self.settings["busyRate"]:
            if station in self.stations:
                self.send_later(now + self.delay(station),
                                encode([station, request[1] | 0x80, SLAVE_DEVICE_BUSY]))
                return "busy"
        if not self.station_hears(station, now):
            return "unheard"
        reply = self.stations[station].answer(request)
        due = now + self.delay(station)
        if faults and self.random.random() < self.settings["replyFaultRate"]:
            return self.spoil_reply(request, reply, record, now, due)
        self.send_later(due, encode(reply), record)
        return "answered"

    def delay(self, station):
        return self.random.uniform(*self.settings["delaysS"][str(station)])

    def spoil_reply(self, request, reply, record, now, due):
        fault = self.random.choice(self.settings["replyFaults"])
        frame = encode(reply)
        if fault in ("other station", "other function", "other length", "other request"):
            stray = encode(self.misdirected(fault, request, reply))
            if self.random.random() < 0.5:
                # The stray frame comes first, then the real answer.
                self.send_later(due, stray)
                self.send_later(due + 0.002, frame, record)
                return "answered after " + fault
            self.send_later(due, stray)
        elif fault == "late":
            self.send_later(now + self.random.uniform(*self.settings["lateS"]), frame)
        elif fault == "corrupted":
            self.send_later(due, self.spoiled(frame))
        elif fault == "truncated":
            self.send_later(due, frame[:self.random.randrange(1, len(frame) - 1)])
        elif fault == "lower case":
            self.send_later(due, frame.lower())
        elif fault == "noise":
            for k in range(round(NOISE_FOR_S / NOISE_EVERY_S)):
                self.send_later(due + k * NOISE_EVERY_S, NOISE)
        return fault

    def misdirected(self, fault, request, reply):
        """A well-formed frame that does not answer the request."""
        if fault == "other station":
            return bytes([reply[0] ^ self.random.choice((0x01, 0x10, 0x40))]) + reply[1:]
        if fault == "other function":
            return reply[:1] + bytes([reply[1] ^ 0x07]) + reply[2:]
        if fault == "other request" and request[1] in (5, 6, 15, 16) and len(reply) >= 6:
            # The acknowledgement of a write to the next address.
            address = (word(reply, 2) + 1) & 0xFFFF
            return reply[:2] + bytes([address >> 8, address & 0xFF]) + reply[4:]
        return other_length(reply)

    # --- the loop ----------------------------------------------------------------------

    def wait_s(self, now):
        due = [t for t in (self.changes.next_due(),
                           self.outgoing[0][0] if self.outgoing else None) if t is not None]
        return max(0.0, min([POLL_S] + [t - now for t in due]))

    def run(self):
        print(f"ready {self.port.number}" if self.tcp else "ready", flush=True)
        while not self.stopping:
            now = time.monotonic()
            self.lose_or_restore_port(now)
            self.changes.apply_due(now)
            ends = self.port.descriptors() if self.port else []
            try:
                readable, _, _ = select.select(ends, [], [], self.wait_s(now))
            except InterruptedError:
                continue
            now = time.monotonic()
            if self.port and self.port.take_readable(readable):
                self.receive(now)
            if self.port:
                self.send_due(now)

    def as_json(self):
        return {"start": self.start, "firstRequestAt": self.first_request_at,
                "stoppedAt": time.monotonic(), "portDown": self.port_down,
                "requests": self.requests, **self.history.as_json()}


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--scenario", required=True)
    place = parser.add_mutually_exclusive_group(required=True)
    place.add_argument("--host-link", help="the host's pseudo-terminal, linked here")
    place.add_argument("--tcp", action="store_true",
                       help="listen on a loopback port, as a device server")
    parser.add_argument("--history", required=True)
    return parser.parse_args(argv)


def main(argv):
    args = parse_arguments(argv)
    with open(args.scenario, encoding="utf-8") as stream:
        line = ChaosLine(json.load(stream), args.host_link, args.tcp)

    def stop(*_):
        line.stopping = True

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    line.run()
    with open(args.history, "w", encoding="utf-8") as stream:
        json.dump(line.as_json(), stream)


if __name__ == "__main__":
    main(sys.argv[1:])
