# SPDX-License-Identifier: MIT
"""A small scripted Modbus ASCII slave on a pseudo-terminal, run in a thread of the test.

Unlike the pymodbus slave it can misbehave in ways a test picks exactly: stay silent to
some stations, leave writes to some registers unanswered or refuse them with an exception
(and not carry them out), answer writes in lower-case hex (and carry them out), leave the
first requests of the run unanswered, or ignore requests and keep printing a line of text
that opens a frame and never ends it. With echo it also plays an adapter that sends every
request back before the answer, the first echoes spoilt. Every request it hears, answered or
not, is logged with its time.

    with ScriptedSlave(holding={1: {10: 10}}) as slave:
        run host --port slave.port ...
    slave.holding[1][10]
"""
import os
import select
import threading
import time
import tty


def lrc(data):
    return (-sum(data)) & 0xFF


def encode(data):
    """A frame of binary bytes: ':', hex digits, LRC, CR LF."""
    return b":" + (bytes(data) + bytes([lrc(data)])).hex().upper().encode() + b"\r\n"


def decode(frame):
    """The binary bytes of a frame without its LRC, or None when it is not a good frame."""
    text = frame.strip()
    if not text.startswith(b":") or len(text) % 2 == 0:
        return None
    try:
        data = bytes.fromhex(text[1:].decode())
    except ValueError:
        return None
    return data[:-1] if len(data) >= 3 and sum(data) & 0xFF == 0 else None


class ScriptedSlave:
    def __init__(self, holding=None, coils=None, silent=(), unanswered_writes=(),
                 refused_writes=(), lowercase_writes=False, chatter=None, unanswered_first=0,
                 echo=False, spoilt_first_echoes=0):
        self.holding = {s: dict(v) for s, v in (holding or {1: {}}).items()}
        self.coils = {s: dict(v) for s, v in (coils or {}).items()}
        for station in self.holding:
            self.coils.setdefault(station, {})
        self.silent = set(silent)
        self.unanswered_writes = set(unanswered_writes)  # (station, register)
        self.refused_writes = set(refused_writes)  # answered with exception 04, not carried out
        self.lowercase_writes = lowercase_writes
        self.chatter = chatter  # (text, interval_s): printed for ever instead of answering
        self.requests = 0
        self.unanswered_first = unanswered_first
        self.echo = echo
        self.spoilt_echoes_left = spoilt_first_echoes
        # (monotonic time, station, function, address, quantity) of every request heard
        self.log = []
        self.master, self.slave = os.openpty()
        tty.setraw(self.slave)
        self.port = os.ttyname(self.slave)
        self.stopping = False
        self.thread = threading.Thread(target=self.run, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.stopping = True
        self.thread.join(5)
        os.close(self.master)
        os.close(self.slave)

    def run(self):
        if self.chatter:
            self.chat(*self.chatter)
            return
        buffer = b""
        while not self.stopping:
            try:
                chunk = os.read(self.master, 4096) if self.readable() else b""
            except OSError:
                time.sleep(0.01)
                continue
            buffer += chunk
            while b"\n" in buffer:
                frame, buffer = buffer.split(b"\n", 1)
                if self.echo:
                    os.write(self.master, self.echo_of(frame + b"\n"))
                reply = self.answer(frame + b"\n")
                if reply:
                    os.write(self.master, reply)

    def readable(self):
        ready, _, _ = select.select([self.master], [], [], 0.05)
        return bool(ready)

    def chat(self, text, interval):
        while not self.stopping:
            os.write(self.master, text)
            self.drain()
            time.sleep(interval)

    def drain(self):
        while self.readable():
            os.read(self.master, 4096)

    def echo_of(self, frame):
        """The request as the adapter sends it back: its LRC spoilt while spoilt echoes last."""
        if self.spoilt_echoes_left == 0:
            return frame
        self.spoilt_echoes_left -= 1
        last = frame[-3:-2]
        return frame[:-3] + (b"0" if last != b"0" else b"1") + frame[-2:]

    def answer(self, frame):
        request = decode(frame)
        if request is not None and len(request) >= 6:
            self.log.append((time.monotonic(), request[0], request[1],
                             request[2] << 8 | request[3], request[4] << 8 | request[5]))
        if self.unanswered_first > 0:
            self.unanswered_first -= 1
            return None
        if request is None or request[0] not in self.holding or request[0] in self.silent:
            return None
        self.requests += 1
        station, function = request[0], request[1]
        address = request[2] << 8 | request[3]
        quantity = request[4] << 8 | request[5]
        if function == 3:
            values = [self.holding[station].get(address + i, 0) for i in range(quantity)]
            data = [b for v in values for b in (v >> 8, v & 0xFF)]
            return encode([station, 3, len(data)] + data)
        if function == 1:
            bits = [self.coils[station].get(address + i, 0) for i in range(quantity)]
            data = [sum(bits[8 * k + b] << b for b in range(min(8, quantity - 8 * k)))
                    for k in range((quantity + 7) // 8)]
            return encode([station, 1, len(data)] + data)
        if function == 6:
            if (station, address) in self.unanswered_writes:
                return None
            if (station, address) in self.refused_writes:
                return encode([station, function | 0x80, 4])
            self.holding[station][address] = quantity
            return self.acknowledge(request)
        if function == 16:
            for i in range(quantity):
                self.holding[station][address + i] = request[7 + 2 * i] << 8 | request[8 + 2 * i]
            return self.acknowledge(request[:6])
        if function == 5:
            self.coils[station][address] = 1 if request[4] == 0xFF else 0
            return self.acknowledge(request)
        return None

    def acknowledge(self, data):
        reply = encode(data)
        return reply.lower() if self.lowercase_writes else reply
