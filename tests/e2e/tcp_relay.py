#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A TCP relay for the network link tests: stands between modbus-ascii-host and a device
server and changes how the bytes travel, never what they are.

    tcp_relay.py --to 127.0.0.1:PORT [--split SEED] [--delay-ms N]
    tcp_relay.py --pty PATH

It listens on a free loopback port, prints "ready PORT" and relays one connection at a time
(a new one replaces the old) to --to, or with --pty to a pseudo-terminal, as a device server
of its own (for a test that runs it where no ser2net can listen). --split cuts what it relays
at random points into segments sent 0 to 2 ms apart, after holding it 0 to 8 ms so that what
arrives meanwhile is sent with it; --delay-ms sends everything that much later, each way. On
SIGTERM it prints one JSON line of counts toward the host: segments, line feeds, and the most
line feeds one segment held.
"""
import argparse
import json
import os
import random
import select
import signal
import socket
import sys
import time
import tty

POLL_S = 0.05
HOLD_S = (0.0, 0.008)
GAP_S = (0.0, 0.002)
LONGEST_PIECE = 12


class Plain:
    """Sends what comes, when it comes (a delay, if any, each way)."""

    def __init__(self, delay_s):
        self.delay_s = delay_s
        self.queue = []  # (due, bytes)

    def push(self, now, data):
        self.queue.append((now + self.delay_s, data))

    def due(self, now):
        ready = [data for due, data in self.queue if due <= now]
        self.queue = [(due, data) for due, data in self.queue if due > now]
        return ready

    def next_due(self):
        return min((due for due, _ in self.queue), default=None)


class Splitter(Plain):
    """Holds what comes for a moment, then sends it in pieces cut at random points."""

    def __init__(self, rng):
        super().__init__(0.0)
        self.rng = rng
        self.held = bytearray()
        self.flush_at = None

    def push(self, now, data):
        self.held += data
        if self.flush_at is None:
            self.flush_at = now + self.rng.uniform(*HOLD_S)

    def due(self, now):
        if self.flush_at is not None and now >= self.flush_at:
            at = now
            while self.held:
                size = self.rng.randint(1, LONGEST_PIECE)
                self.queue.append((at, bytes(self.held[:size])))
                del self.held[:size]
                at += self.rng.uniform(*GAP_S)
            self.flush_at = None
        return super().due(now)

    def next_due(self):
        dues = [d for d in (self.flush_at, super().next_due()) if d is not None]
        return min(dues, default=None)


class Counts:
    def __init__(self):
        self.segments = 0
        self.line_feeds = 0
        self.most_line_feeds = 0

    def note(self, segment):
        self.segments += 1
        self.line_feeds += segment.count(b"\n")
        self.most_line_feeds = max(self.most_line_feeds, segment.count(b"\n"))


class Endpoint:
    """A socket or a pseudo-terminal, read and written alike."""

    def __init__(self, sock=None, descriptor=None):
        self.sock = sock
        self.descriptor = descriptor if sock is None else sock.fileno()

    def read(self):
        try:
            return self.sock.recv(4096) if self.sock else os.read(self.descriptor, 4096)
        except BlockingIOError:
            return None
        except OSError:
            return b""

    def write(self, data):
        view = memoryview(data)
        while view:
            try:
                sent = self.sock.send(view) if self.sock else os.write(self.descriptor, view)
            except BlockingIOError:
                select.select([], [self.descriptor], [], POLL_S)
                continue
            view = view[sent:]

    def close(self):
        if self.sock:
            self.sock.close()
        else:
            os.close(self.descriptor)


def open_upstream(arguments):
    if arguments.pty:
        descriptor = os.open(arguments.pty, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        tty.setraw(descriptor)
        return Endpoint(descriptor=descriptor)
    host, port = arguments.to.rsplit(":", 1)
    sock = socket.create_connection((host, int(port)), timeout=5)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    sock.setblocking(False)
    return Endpoint(sock=sock)


def shaper(arguments, rng):
    return Splitter(rng) if arguments.split is not None else Plain(arguments.delay_ms / 1000)


class Relay:
    def __init__(self, arguments):
        self.arguments = arguments
        self.rng = random.Random(arguments.split)
        self.counts = Counts()
        self.pair = None  # (host side, upstream, shaper toward upstream, shaper toward host)

    def accept(self, listener):
        sock, _ = listener.accept()
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.setblocking(False)
        self.drop()
        try:
            upstream = open_upstream(self.arguments)
        except OSError:
            sock.close()
            return
        self.pair = (Endpoint(sock=sock), upstream, shaper(self.arguments, self.rng),
                     shaper(self.arguments, self.rng))

    def drop(self):
        if self.pair:
            self.pair[0].close()
            self.pair[1].close()
            self.pair = None

    def carry(self, readable, now):
        host, upstream, up, down = self.pair
        for source, shaping in ((host, up), (upstream, down)):
            if source.descriptor in readable:
                data = source.read()
                if data == b"":
                    self.drop()
                    return
                if data:
                    shaping.push(now, data)
        for segment in up.due(now):
            upstream.write(segment)
        for segment in down.due(now):
            host.write(segment)
            self.counts.note(segment)

    def timeout(self, now):
        if not self.pair:
            return POLL_S
        dues = [d for d in (self.pair[2].next_due(), self.pair[3].next_due()) if d is not None]
        return max(0.0, min([POLL_S] + [d - now for d in dues]))

    def serve(self, listener):
        while True:
            watched = [listener.fileno()]
            if self.pair:
                watched += [self.pair[0].descriptor, self.pair[1].descriptor]
            readable, _, _ = select.select(watched, [], [], self.timeout(time.monotonic()))
            if listener.fileno() in readable:
                self.accept(listener)
            if self.pair:
                self.carry(readable, time.monotonic())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    upstream = parser.add_mutually_exclusive_group(required=True)
    upstream.add_argument("--to", help="HOST:PORT of the device server")
    upstream.add_argument("--pty", help="a pseudo-terminal to serve instead")
    parser.add_argument("--split", type=int, help="cut into random segments, with this seed")
    parser.add_argument("--delay-ms", type=int, default=0, help="delay each way")
    arguments = parser.parse_args()
    relay = Relay(arguments)

    def report(*_):
        print(json.dumps(vars(relay.counts)), flush=True)
        sys.exit(0)

    signal.signal(signal.SIGTERM, report)
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(4)
    print(f"ready {listener.getsockname()[1]}", flush=True)
    relay.serve(listener)


if __name__ == "__main__":
    main()
