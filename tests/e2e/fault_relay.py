#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A noisy line for end-to-end tests: relays Modbus ASCII frames between the master's
pseudo-terminal and the slave's, and spoils a share of them.

    fault_relay.py --host-side PTY --slave-side PTY --fault-rate 0.1 --seed 7 \\
        --late-after-ms 250 --stats stats.json [--refuse-address 9000]

Requests pass from the host side to the slave side, replies back, one whole frame (up to LF)
at a time. Each reply is spoiled with probability RATE, in one of these ways chosen alike:
- dropped, one character replaced, or cut short (its LF never comes);
- held back until LATE_AFTER_MS (the master's time-out) plus 20 to 120 ms after its request
  went out, so that it arrives late; a late reply is sent on its own schedule and holds back
  nothing behind it;
- made a well-formed frame of another station, another function or another length (its LRC
  made right again), or replaced by the last reply to another request;
- sent in lower-case hex;
- replaced by noise without a line feed: "T: 1" and CR every 10 ms for 100 ms, each ':'
  opening a frame that never ends.
Each request is dropped with probability RATE / 4 (or --request-loss), and answered by the relay itself with an
exception (slave device failure), never reaching the slave, with probability RATE / 4; a
write to --refuse-address is always answered so (and never dropped).
With --echo every request comes back to the host first, as from an adapter that hears its own
transmission (the echo is sent even when the request is then lost on the way to the slave);
--echo-fault-rate spoils a share of the echoes, as a collision would. --late-extra-ms (default 0)
makes late replies later still. With --host-link the relay makes the host's pseudo-terminal
itself, under that name; --port-loss-at S closes it S seconds after the host's first request
(by then the host has opened it, however slowly it started) and makes it again under the same
name --port-down-s later, as a USB adapter pulled and plugged in again.
The choices come from one seeded random
generator, so a run can be repeated. Counts go to --stats (JSON) when the relay ends
(SIGTERM or SIGINT); "ready" is printed once both ends are open.
"""
import argparse
import heapq
import json
import os
import random
import select
import signal
import sys
import time
import tty
from collections import Counter

REPLY_FAULTS = ("dropped", "corrupted", "truncated", "late", "other station", "other function",
                "other length", "other request", "lower case", "noise")
NOISE = b"T: 1\r"
NOISE_EVERY_S = 0.01
NOISE_FOR_S = 0.1
SLAVE_DEVICE_FAILURE = 4
REPLACEMENTS = b"0123456789ABCDEF:\r\nZ"
LATE_SPREAD_S = (0.02, 0.12)
POLL_S = 0.05


def open_raw(path):
    descriptor = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
    tty.setraw(descriptor)
    return descriptor


def write_all(descriptor, data):
    while data:
        try:
            data = data[os.write(descriptor, data):]
        except BlockingIOError:
            select.select([], [descriptor], [], POLL_S)


def frame_bytes(frame):
    """The binary bytes of a well-formed frame without its LRC, or None."""
    try:
        data = bytes.fromhex(frame.strip()[1:].decode())
    except ValueError:
        return None
    return data[:-1] if frame.startswith(b":") and len(data) >= 3 else None


def encode(data):
    """Binary bytes as a frame with its LRC: ':', upper-case hex, CR LF."""
    return b":" + (bytes(data) + bytes([-sum(data) & 0xFF])).hex().upper().encode() + b"\r\n"


def other_length(data):
    """A read reply with one data byte more (its byte count to match), or a write reply with a
    byte more."""
    if data[1] <= 4:
        return bytes([data[0], data[1], data[2] + 1]) + data[3:] + b"\x00"
    return data + b"\x00"


def split_frames(buffer):
    """Whole frames (up to and including LF) and the rest still waiting for its LF."""
    frames = []
    while b"\n" in buffer:
        end = buffer.index(b"\n") + 1
        frames.append(buffer[:end])
        buffer = buffer[end:]
    return frames, buffer


class HostPort:
    """A pseudo-terminal the relay makes for the host, with a link to its name."""

    def __init__(self, link):
        self.link = link
        self.master, self.slave = os.openpty()
        for descriptor in (self.master, self.slave):
            tty.setraw(descriptor)
        os.set_blocking(self.master, False)
        if os.path.lexists(link):
            os.unlink(link)
        os.symlink(os.ttyname(self.slave), link)

    def close(self):
        os.unlink(self.link)
        os.close(self.master)
        os.close(self.slave)


class Relay:
    def __init__(self, args):
        self.random = random.Random(args.seed)
        self.refused_address = args.refuse_address
        self.last_reply = None
        self.rate = args.fault_rate
        self.request_loss = args.fault_rate / 4 if args.request_loss is None else args.request_loss
        self.echo = args.echo
        self.echo_fault_rate = args.echo_fault_rate
        self.late_after = (args.late_after_ms + args.late_extra_ms) / 1000
        self.host_port = HostPort(args.host_link) if args.host_link else None
        self.host = self.host_port.master if self.host_port else open_raw(args.host_side)
        self.link = args.host_link
        self.loss_at = args.port_loss_at
        self.down_for = args.port_down_s
        self.lost_since = None
        self.first_request_at = None
        self.slave = open_raw(args.slave_side)
        self.pending = {self.host: b"", self.slave: b""}
        self.late = []  # (due, sequence, frame)
        self.request_sent_at = time.monotonic()
        self.counts = Counter()
        self.stopping = False

    def spoiled(self, frame):
        position = self.random.randrange(len(frame))
        replacement = self.random.choice([c for c in REPLACEMENTS if c != frame[position]])
        return frame[:position] + bytes([replacement]) + frame[position + 1:]

    def send_echo(self, frame):
        if self.random.random() < self.echo_fault_rate:
            self.counts["echoes spoiled"] += 1
            frame = self.spoiled(frame)
        write_all(self.host, frame)

    def on_request(self, frame):
        self.counts["requests"] += 1
        if self.first_request_at is None:
            self.first_request_at = time.monotonic()
        if self.echo:
            self.send_echo(frame)
        chance = self.random.random()
        data = frame_bytes(frame)
        # The write the relay always refuses is never dropped either: it is failed for sure.
        if chance < self.request_loss and not (data and self.refused(data)):
            self.counts["requests dropped"] += 1
            return
        self.request_sent_at = time.monotonic()
        if data and (chance < self.request_loss + self.rate / 4 or self.refused(data)):
            self.counts["requests refused"] += 1
            write_all(self.host, encode([data[0], data[1] | 0x80, SLAVE_DEVICE_FAILURE]))
            return
        write_all(self.slave, frame)

    def refused(self, data):
        """A write (function 5, 6 or 16) to the address the relay always refuses."""
        return (self.refused_address is not None and len(data) >= 4 and data[1] in (5, 6, 16)
                and data[2] << 8 | data[3] == self.refused_address)

    def on_reply(self, frame):
        self.counts["replies"] += 1
        if self.lost_since is not None:
            self.counts["replies lost with the port"] += 1
            return
        previous, self.last_reply = self.last_reply, frame
        if self.random.random() >= self.rate:
            write_all(self.host, frame)
            return
        fault = self.random.choice(REPLY_FAULTS)
        self.counts["replies " + fault] += 1
        data = frame_bytes(frame)
        if data and fault in ("other station", "other function", "other length"):
            changed = {"other station": lambda d: bytes([d[0] ^ 0x10]) + d[1:],
                       "other function": lambda d: d[:1] + bytes([d[1] ^ 0x07]) + d[2:],
                       "other length": other_length}[fault](data)
            write_all(self.host, encode(changed))
        elif fault == "other request":
            write_all(self.host, previous or b"")
        elif fault == "lower case":
            write_all(self.host, frame.lower())
        elif fault == "noise":
            for k in range(round(NOISE_FOR_S / NOISE_EVERY_S)):
                heapq.heappush(self.late, (time.monotonic() + k * NOISE_EVERY_S,
                                           self.counts["replies"], NOISE))
        elif fault == "corrupted":
            write_all(self.host, self.spoiled(frame))
        elif fault == "truncated":
            write_all(self.host, frame[:self.random.randrange(1, len(frame) - 1)])
        elif fault == "late":
            due = self.request_sent_at + self.late_after + self.random.uniform(*LATE_SPREAD_S)
            heapq.heappush(self.late, (due, self.counts["replies"], frame))

    def send_due_replies(self):
        while self.late and self.late[0][0] <= time.monotonic() and self.lost_since is None:
            write_all(self.host, heapq.heappop(self.late)[2])

    def receive(self, descriptor):
        try:
            data = os.read(descriptor, 4096)
        except (BlockingIOError, OSError):
            return
        frames, self.pending[descriptor] = split_frames(self.pending[descriptor] + data)
        handle = self.on_request if descriptor == self.host else self.on_reply
        for frame in frames:
            handle(frame)

    def lose_or_restore_port(self):
        now = time.monotonic()
        if (self.loss_at is not None and self.lost_since is None
                and self.first_request_at is not None
                and now - self.first_request_at >= self.loss_at):
            self.counts["port losses"] += 1
            del self.pending[self.host]
            self.host_port.close()
            self.lost_since = now
            self.loss_at = None
        elif self.lost_since is not None and now - self.lost_since >= self.down_for:
            self.host_port = HostPort(self.link)
            self.host = self.host_port.master
            self.pending[self.host] = b""
            self.lost_since = None

    def run(self):
        print("ready", flush=True)
        while not self.stopping:
            if self.host_port:
                self.lose_or_restore_port()
            wait = POLL_S
            if self.late:
                wait = max(0.0, min(wait, self.late[0][0] - time.monotonic()))
            try:
                ends = [self.slave] if self.lost_since is not None else [self.host, self.slave]
                readable, _, _ = select.select(ends, [], [], wait)
            except InterruptedError:
                continue
            for descriptor in readable:
                self.receive(descriptor)
            self.send_due_replies()


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    host = parser.add_mutually_exclusive_group(required=True)
    host.add_argument("--host-side")
    host.add_argument("--host-link")
    parser.add_argument("--port-loss-at", type=float)
    parser.add_argument("--port-down-s", type=float, default=4.0)
    parser.add_argument("--slave-side", required=True)
    parser.add_argument("--fault-rate", type=float, required=True)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--late-after-ms", type=int, required=True)
    parser.add_argument("--stats", required=True)
    parser.add_argument("--refuse-address", type=int, default=None)
    parser.add_argument("--late-extra-ms", type=int, default=0)
    parser.add_argument("--request-loss", type=float)
    parser.add_argument("--echo", action="store_true")
    parser.add_argument("--echo-fault-rate", type=float, default=0.0)
    return parser.parse_args(argv)


def main(argv):
    args = parse_arguments(argv)
    relay = Relay(args)

    def stop(*_):
        relay.stopping = True

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    relay.run()
    with open(args.stats, "w", encoding="utf-8") as stream:
        json.dump(dict(relay.counts), stream, indent=1, sort_keys=True)


if __name__ == "__main__":
    main(sys.argv[1:])
