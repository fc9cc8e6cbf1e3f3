#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A noisy line for end-to-end tests: relays Modbus ASCII frames between the master's
pseudo-terminal and the slave's, and spoils a share of them.

    fault_relay.py --host-side PTY --slave-side PTY --fault-rate 0.1 --seed 7 \\
        --late-after-ms 250 --stats stats.json

Requests pass from the host side to the slave side, replies back, one whole frame (up to LF)
at a time. Each reply is spoiled with probability RATE, in one of four ways chosen alike:
dropped, one character replaced, cut short (its LF never comes), or held back until
LATE_AFTER_MS (the master's time-out) plus LATE_EXTRA_MS (default 0) plus 20 to 120 ms after
its request went out, so that it arrives late; a late reply is sent on its own schedule and
holds back nothing behind it.
Each request is dropped with probability RATE / 4 (or --request-loss). With --echo every
request comes back to the host first, as from an adapter that hears its own transmission (the
echo is sent even when the request is then lost on the way to the slave); --echo-fault-rate
spoils a share of the echoes, as a collision would. The choices come from one seeded random
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

REPLY_FAULTS = ("dropped", "corrupted", "truncated", "late")
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


def split_frames(buffer):
    """Whole frames (up to and including LF) and the rest still waiting for its LF."""
    frames = []
    while b"\n" in buffer:
        end = buffer.index(b"\n") + 1
        frames.append(buffer[:end])
        buffer = buffer[end:]
    return frames, buffer


class Relay:
    def __init__(self, args):
        self.random = random.Random(args.seed)
        self.rate = args.fault_rate
        self.request_loss = args.fault_rate / 4 if args.request_loss is None else args.request_loss
        self.echo = args.echo
        self.echo_fault_rate = args.echo_fault_rate
        self.late_after = (args.late_after_ms + args.late_extra_ms) / 1000
        self.host = open_raw(args.host_side)
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
        if self.echo:
            self.send_echo(frame)
        if self.random.random() < self.request_loss:
            self.counts["requests dropped"] += 1
            return
        self.request_sent_at = time.monotonic()
        write_all(self.slave, frame)

    def on_reply(self, frame):
        self.counts["replies"] += 1
        if self.random.random() >= self.rate:
            write_all(self.host, frame)
            return
        fault = self.random.choice(REPLY_FAULTS)
        self.counts["replies " + fault] += 1
        if fault == "corrupted":
            write_all(self.host, self.spoiled(frame))
        elif fault == "truncated":
            write_all(self.host, frame[:self.random.randrange(1, len(frame) - 1)])
        elif fault == "late":
            due = self.request_sent_at + self.late_after + self.random.uniform(*LATE_SPREAD_S)
            heapq.heappush(self.late, (due, self.counts["replies"], frame))

    def send_due_replies(self):
        while self.late and self.late[0][0] <= time.monotonic():
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

    def run(self):
        print("ready", flush=True)
        while not self.stopping:
            wait = POLL_S
            if self.late:
                wait = max(0.0, min(wait, self.late[0][0] - time.monotonic()))
            try:
                readable, _, _ = select.select([self.host, self.slave], [], [], wait)
            except InterruptedError:
                continue
            for descriptor in readable:
                self.receive(descriptor)
            self.send_due_replies()


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--host-side", required=True)
    parser.add_argument("--slave-side", required=True)
    parser.add_argument("--fault-rate", type=float, required=True)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--late-after-ms", type=int, required=True)
    parser.add_argument("--stats", required=True)
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
