#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Runs the same Google Benchmarks in several builds, interleaved, and prints their medians.

Usage: bench/compare_builds.py [--filter RE] [--rounds N] [--cpu LIST] BUILD_DIR...
  (defaults: the transaction benchmarks, 10 rounds, no CPU pinning). Each round runs every
build's BUILD_DIR/bench/driver_bench once with 3 repetitions, the builds in turn, so that a
change of the machine's load falls on all builds alike; with --cpu every run is pinned to those
CPUs with taskset. The table gives, per benchmark and build, the median CPU time of all
repetitions and its ratio to the fastest build of that benchmark (1.00x for the fastest).
A build directory may also be a benchmark build against installed packages
(bench/build_against_packages.sh).
"""
import argparse
import json
import statistics
import subprocess

TRANSACTIONS = "BM_CyclicReadTransaction|BM_HostWriteTransaction|BM_InterfaceFloor"


def run_once(build, bench_filter, cpu):
    command = [
        f"{build}/bench/driver_bench",
        f"--benchmark_filter={bench_filter}",
        "--benchmark_repetitions=3",
        "--benchmark_format=json",
    ]
    if cpu:
        command = ["taskset", "-c", cpu] + command
    out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    times = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("run_type") == "iteration":
            times.setdefault(b["run_name"], []).append((b["cpu_time"], b["time_unit"]))
    return times


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--filter", default=TRANSACTIONS)
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--cpu", default="")
    parser.add_argument("builds", nargs="+")
    args = parser.parse_args()

    samples = {build: {} for build in args.builds}
    for _ in range(args.rounds):
        for build in args.builds:
            for name, times in run_once(build, args.filter, args.cpu).items():
                samples[build].setdefault(name, []).extend(times)

    print(f"median CPU time of {args.rounds} rounds x 3 repetitions"
          f"{', pinned to CPU ' + args.cpu if args.cpu else ''}; ratio to the fastest build")
    for i, build in enumerate(args.builds):
        print(f"  [{i}] {build}")
    header = "".join(f"{'[' + str(i) + ']':>20}" for i in range(len(args.builds)))
    print(f"{'benchmark':<48}{header}")
    for name in samples[args.builds[0]]:
        medians = []
        for build in args.builds:
            times = samples[build].get(name, [])
            medians.append((statistics.median(t for t, _ in times), times[0][1]) if times else None)
        fastest = min(m[0] for m in medians if m)
        cells = "".join(
            f"{m[0]:>9.4g} {m[1]:<2} {m[0] / fastest:>5.2f}x" if m else f"{'-':>20}"
            for m in medians)
        print(f"{name:<48}{cells}")


if __name__ == "__main__":
    main()
