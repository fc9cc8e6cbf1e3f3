#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Side by side: the driver's cyclic read transaction against pymodbus's ASCII framer.

Runs the Google Benchmark BM_CyclicReadTransaction of the driver (single station, 1 and 125
holding registers) and times pymodbus (Debian's, this interpreter) on the same work: build
the request frame, take the correct reply through the framer and decode its registers. pymodbus
runs it twice: with one long-lived framer for every transaction, and with a new framer per
transaction (the decoder, a lookup table, is shared by both). Both sides use identical frames
and must decode the same values; prints medians and the ratios. Beside them the yardstick
BM_InterfaceFloor (bench/bench_floor.cpp): only the work the host interface demands of any
implementation of the 1-register transaction, with no protocol logic.

Usage: bench/compare_pymodbus.py [BUILD_DIR] [REPETITIONS]   (default: build-rel, 10)
"""
import json
import statistics
import subprocess
import sys
import time
import timeit

from pymodbus.factory import ClientDecoder
from pymodbus.register_read_message import ReadHoldingRegistersRequest
from pymodbus.transaction import ModbusAsciiFramer

STATION = 1
ADDRESS = 1000


def register_value(i):
    """The value of register i in every benchmark reply (bench/bench_frames.h)."""
    return (0x1234 + 0x9E37 * i) & 0xFFFF


def frame(binary):
    lrc = (-sum(binary)) & 0xFF
    return b":" + (bytes(binary) + bytes([lrc])).hex().upper().encode() + b"\r\n"


def reply_frame(registers):
    body = [STATION, 3, 2 * registers]
    for i in range(registers):
        body += [register_value(i) >> 8, register_value(i) & 0xFF]
    return frame(body)


def pymodbus_transaction(registers, reply, new_framer):
    """One transaction through pymodbus: request frame, reply through the framer, values.
    With new_framer each transaction makes its own framer, else one framer serves them all."""
    decoder = ClientDecoder()
    long_lived = ModbusAsciiFramer(decoder)
    decoded = []

    def work():
        framer = ModbusAsciiFramer(decoder) if new_framer else long_lived
        request = ReadHoldingRegistersRequest(ADDRESS, registers, unit=STATION)
        packet = framer.buildPacket(request)
        framer.processIncomingPacket(reply, lambda r: decoded.append(r.registers), unit=STATION)
        return packet

    return work, decoded


def time_pymodbus(registers, repetitions, new_framer):
    reply = reply_frame(registers)
    work, decoded = pymodbus_transaction(registers, reply, new_framer)
    request = work()
    values = decoded[-1]
    number = 2000 if registers == 1 else 1000
    real, cpu = [], []
    for _ in range(repetitions):
        real.append(timeit.timeit(work, number=number) / number * 1e9)
        cpu.append(timeit.timeit(work, number=number, timer=time.process_time) / number * 1e9)
    return statistics.median(real), statistics.median(cpu), request, reply, values


def run_driver(build_dir, repetitions):
    command = [
        f"{build_dir}/bench/driver_bench",
        "--benchmark_filter=BM_CyclicReadTransaction/registers:(1|125)/multi:0$|BM_InterfaceFloor",
        f"--benchmark_repetitions={repetitions}",
        "--benchmark_report_aggregates_only=true",
        "--benchmark_format=json",
    ]
    result = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)
    medians = {}
    for b in result["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        if b["run_name"] == "BM_InterfaceFloor":
            medians["floor"] = b
        else:
            registers = int(b["run_name"].split("registers:")[1].split("/")[0])
            medians[registers] = b
    return medians


def check_same_work(driver, request, reply, values):
    label_request, label_reply = driver["label"].split(" ")
    if label_request.encode() != request.strip() or label_reply.encode() != reply.strip():
        sys.exit(f"frames differ: driver {driver['label']!r}, pymodbus {request!r} {reply!r}")
    weighted = sum((i + 1) * v for i, v in enumerate(values))
    if driver["values_sum"] != sum(values) or driver["values_weighted"] != weighted:
        sys.exit(f"decoded values differ: driver sum {driver['values_sum']}, pymodbus {sum(values)}")


def print_row(name, real, cpu, py_real, py_cpu, note=""):
    print(f"{name:>9} {real:>15.0f} {py_real:>17.0f} {py_real / real:>5.0f}x"
          f" {cpu:>14.0f} {py_cpu:>16.0f} {py_cpu / cpu:>5.0f}x{note}")


def main():
    build_dir = sys.argv[1] if len(sys.argv) > 1 else "build-rel"
    repetitions = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    driver = run_driver(build_dir, repetitions)
    print(f"median of {repetitions} repetitions; driver: {build_dir}")
    for new_framer in (False, True):
        kind = "a new framer per transaction" if new_framer else "one long-lived framer"
        print(f"pymodbus with {kind}:")
        print(f"{'registers':>9} {'driver real ns':>15} {'pymodbus real ns':>17} {'ratio':>6}"
              f" {'driver cpu ns':>14} {'pymodbus cpu ns':>16} {'ratio':>6}")
        for registers in (1, 125):
            py_real, py_cpu, request, reply, values = time_pymodbus(
                registers, repetitions, new_framer)
            ours = driver[registers]
            check_same_work(ours, request, reply, values)
            print_row(registers, ours["real_time"], ours["cpu_time"], py_real, py_cpu)
            if registers == 1:
                floor = driver["floor"]
                print_row("floor", floor["real_time"], floor["cpu_time"], py_real, py_cpu,
                          "   (the interface's own cost, bench/bench_floor.cpp)")
    print("both decoded the same values from identical frames")


if __name__ == "__main__":
    main()
