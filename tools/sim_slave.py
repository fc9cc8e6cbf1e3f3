#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A simulated Modbus ASCII slave for trying out and testing modbus-ascii-host.

It serves one or more stations on a serial device with Debian's python3-pymodbus (3.0.x)
ASCII server, can be told to answer badly (faults), and dumps its datastore to a JSON file on
SIGUSR1 and when it ends (SIGTERM or SIGINT), so that a test can check what the master wrote
without reading it back through the master.

Data and stations come from --config FILE and/or the command line:

    {
      "stations": {"1": {"co": {"0": [1, 0, 1]}, "di": {}, "ir": {"0": [100]},
                         "hr": {"10": [4660, 22136]}}},
      "broadcast": false,
      "silent": [5],
      "faults": [{"station": 1, "kind": "bad-lrc", "count": 2}],
      "live": [{"station": 1, "table": "ir", "address": 3, "kind": "counter"},
               {"station": 1, "table": "ir", "address": 0, "kind": "wave",
                "min": 180, "max": 320, "period_s": 30}]
    }

Tables are pymodbus's: "co" coils, "di" discrete inputs, "ir" input registers, "hr" holding
registers; each maps a start address (the number on the wire, from 0) to a list of values.
Stations that are not configured do not answer at all.

Live values change while the master polls them: a counter goes up by one each time it is
read, a wave follows a sine of the clock between min and max over period_s seconds.

Faults are applied, in the order given, to the next replies of their station, COUNT replies
each (default 1): silence (no reply), bad-lrc (LRC off by one), lowercase (hex digits in lower
case; the master rejects it only when the LRC contains a letter), truncate (the last five
characters missing, LF included), exception (exception reply, code 04).

pymodbus 3.0.0 traits this script works around:
- On a pseudo-terminal, 7 data bits with even parity fail with EINVAL; pymodbus logs that at
  debug level only and then serves nothing. The port is therefore opened once here first, so
  that such a setting fails loudly; use 8N1 on pseudo-terminals.
- ServerStop() sleeps 10 s. The server is run here on its own event loop and ended on a
  signal, without it.
- With broadcast enabled, a request to a station that is not configured is answered with
  exception 0x0B; ignore_missing_slaves keeps such stations silent instead.
"""
import argparse
import asyncio
import json
import logging
import math
import os
import signal
import sys
import time

import serial
from pymodbus.datastore import (
    ModbusSequentialDataBlock,
    ModbusServerContext,
    ModbusSlaveContext,
)
from pymodbus.framer.ascii_framer import ModbusAsciiFramer
from pymodbus.pdu import ExceptionResponse
from pymodbus.server.async_io import ModbusSerialServer

TABLES = ("co", "di", "ir", "hr")
STORE_KEYS = {"co": "c", "di": "d", "ir": "i", "hr": "h"}  # ModbusSlaveContext.store
TABLE_SIZE = 65536
FAULT_KINDS = ("silence", "bad-lrc", "lowercase", "truncate", "exception")
SLAVE_DEVICE_FAILURE = 0x04


def parse_number(text):
    return int(text, 0)


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--port", required=True, help="serial device")
    parser.add_argument("--baud", type=int, default=9600)
    parser.add_argument("--data-bits", type=int, default=7, choices=(7, 8))
    parser.add_argument("--parity", default="E", choices=("N", "E", "O"))
    parser.add_argument("--stop-bits", type=int, default=1, choices=(1, 2))
    parser.add_argument("--config", help="JSON file with stations, data, faults")
    parser.add_argument("--station", type=int, action="append", default=[],
                        help="serve this station (repeatable)")
    parser.add_argument("--set", action="append", default=[], metavar="ST:TABLE:ADDR=V[,V...]",
                        help="initial values, e.g. 1:hr:10=0x1234,7 (repeatable)")
    parser.add_argument("--broadcast", action="store_true",
                        help="carry out requests to station 0 on every station")
    parser.add_argument("--silent", type=int, action="append", default=[],
                        help="never answer this station (repeatable)")
    parser.add_argument("--fault", action="append", default=[], metavar="ST:KIND[:COUNT]",
                        help="answer the next COUNT replies of a station badly (repeatable)")
    parser.add_argument("--live", action="append", default=[],
                        metavar="ST:TABLE:ADDR:counter|ST:TABLE:ADDR:wave:MIN:MAX:PERIOD_S",
                        help="a value that changes as it is polled (repeatable)")
    parser.add_argument("--dump", help="write the datastore here on SIGUSR1 and at the end")
    parser.add_argument("--verbose", action="store_true", help="print every reply")
    return parser.parse_args(argv)


def load_config(args):
    """The configuration file merged with the command-line settings."""
    config = {"stations": {}, "broadcast": False, "silent": [], "faults": []}
    if args.config:
        with open(args.config, encoding="utf-8") as stream:
            config.update(json.load(stream))
    stations = config["stations"]
    for station in args.station:
        stations.setdefault(str(station), {})
    for setting in args.set:
        target, values = setting.split("=", 1)
        station, table, address = target.split(":")
        block = stations.setdefault(str(int(station)), {}).setdefault(table, {})
        block[str(parse_number(address))] = [parse_number(v) for v in values.split(",")]
    config["broadcast"] = config["broadcast"] or args.broadcast
    config["silent"] = list(config["silent"]) + args.silent
    for fault in args.fault:
        parts = fault.split(":")
        count = int(parts[2]) if len(parts) > 2 else 1
        config["faults"].append({"station": int(parts[0]), "kind": parts[1], "count": count})
    config.setdefault("live", [])
    for live in args.live:
        parts = live.split(":")
        entry = {"station": int(parts[0]), "table": parts[1], "address": parse_number(parts[2]),
                 "kind": parts[3]}
        if parts[3] == "wave":
            entry.update(min=int(parts[4]), max=int(parts[5]), period_s=float(parts[6]))
        config["live"].append(entry)
    return config


def live_value(entry, current):
    """The next value of a live register."""
    if entry["kind"] == "counter":
        return (current + 1) & 0xFFFF
    phase = 2 * math.pi * time.monotonic() / entry.get("period_s", 30)
    low, high = entry.get("min", 0), entry.get("max", 1000)
    return round(low + (high - low) * (1 + math.sin(phase)) / 2)


class LiveSlaveContext(ModbusSlaveContext):
    """A station whose live values are brought up to date whenever a read covers them."""

    def __init__(self, live, **blocks):
        super().__init__(zero_mode=True, **blocks)
        self.live = live

    def getValues(self, fc_as_hex, address, count=1):
        key = self.decode(fc_as_hex)
        for entry in self.live:
            if STORE_KEYS[entry["table"]] == key and address <= entry["address"] < address + count:
                block = self.store[key]
                current = block.getValues(entry["address"])[0]
                block.setValues(entry["address"], [live_value(entry, current)])
        return super().getValues(fc_as_hex, address, count)


def make_slave(tables, live):
    """One station's datastore, addressed as on the wire (zero_mode: address 0 is element 0)."""
    blocks = {}
    for table in TABLES:
        values = [0] * TABLE_SIZE
        for start, data in tables.get(table, {}).items():
            first = int(start)
            values[first:first + len(data)] = data
        blocks[table] = ModbusSequentialDataBlock(0, values)
    return LiveSlaveContext(live, **blocks)


def make_context(config):
    live = config.get("live", [])
    slaves = {int(station): make_slave(tables, [e for e in live if e["station"] == int(station)])
              for station, tables in config["stations"].items()}
    return ModbusServerContext(slaves=slaves, single=False)


def dump_datastore(context, path):
    """Non-zero values of every station and table, as {"1": {"hr": {"10": 4660}}}."""
    stations = {}
    for station in context.slaves():
        store = context[station].store
        stations[str(station)] = {
            table: {str(a): int(v) for a, v in enumerate(store[STORE_KEYS[table]].values) if v}
            for table in TABLES
        }
    temporary = path + ".tmp"
    with open(temporary, "w", encoding="utf-8") as stream:
        json.dump({"stations": stations}, stream, indent=1, sort_keys=True)
    os.replace(temporary, path)


class Faults:
    """The response manipulator: decides, reply by reply, what actually goes on the line."""

    def __init__(self, config, verbose):
        self.silent = set(config["silent"])
        self.pending = {}
        for fault in config["faults"]:
            if fault["kind"] not in FAULT_KINDS:
                raise SystemExit(f"unknown fault kind {fault['kind']}; known: {FAULT_KINDS}")
            queue = self.pending.setdefault(fault["station"], [])
            queue.extend([fault["kind"]] * fault.get("count", 1))
        self.verbose = verbose
        self.framer = ModbusAsciiFramer(None)

    def __call__(self, response):
        station = response.unit_id
        queue = self.pending.get(station, [])
        kind = "silence" if station in self.silent else (queue.pop(0) if queue else None)
        if kind == "exception":
            fault = ExceptionResponse(response.function_code, SLAVE_DEVICE_FAILURE)
            fault.unit_id = station
            return self.report(station, kind, fault), False
        if kind is None:
            return self.report(station, "normal", response), False
        if kind == "silence":
            # Not an empty raw reply: serial_asyncio's transport spins on a zero-length write.
            response.should_respond = False
            return self.report(station, kind, response), False
        return self.report(station, kind, self.raw_reply(kind, response)), True

    def raw_reply(self, kind, response):
        packet = self.framer.buildPacket(response)
        if kind == "bad-lrc":
            lrc = (int(packet[-4:-2], 16) + 1) & 0xFF
            return packet[:-4] + b"%02X\r\n" % lrc
        if kind == "lowercase":
            return packet.lower()
        return packet[:-5]  # truncate

    def report(self, station, kind, reply):
        if self.verbose:
            shown = reply if isinstance(reply, bytes) else type(reply).__name__
            print(f"station {station}: {kind} reply {shown}", file=sys.stderr, flush=True)
        return reply


def check_port(args):
    """Opens the port as the server will, so that a refused setting is reported, not swallowed."""
    try:
        serial.Serial(args.port, args.baud, bytesize=args.data_bits, parity=args.parity,
                      stopbits=args.stop_bits).close()
    except (serial.SerialException, OSError) as error:
        settings = f"{args.data_bits}{args.parity}{args.stop_bits}"
        raise SystemExit(f"sim_slave: cannot open {args.port} at {args.baud} {settings}: {error}")


async def serve(args, config):
    context = make_context(config)
    server = ModbusSerialServer(
        context, ModbusAsciiFramer, port=args.port, baudrate=args.baud,
        bytesize=args.data_bits, parity=args.parity, stopbits=args.stop_bits,
        broadcast_enable=config["broadcast"], ignore_missing_slaves=True,
        response_manipulator=Faults(config, args.verbose))
    await server.start()
    if server.transport is None:
        raise SystemExit(f"sim_slave: pymodbus could not serve {args.port}")
    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    loop.add_signal_handler(signal.SIGTERM, stop.set)
    loop.add_signal_handler(signal.SIGINT, stop.set)
    if args.dump:
        loop.add_signal_handler(signal.SIGUSR1, dump_datastore, context, args.dump)
    print(f"ready: stations {sorted(context.slaves())} on {args.port}", flush=True)
    await stop.wait()
    if args.dump:
        dump_datastore(context, args.dump)
    logging.disable(logging.ERROR)  # pymodbus logs the end of its serial handler as an error
    await server.shutdown()


def main(argv):
    args = parse_arguments(argv)
    config = load_config(args)
    check_port(args)
    asyncio.run(serve(args, config))


if __name__ == "__main__":
    main(sys.argv[1:])
