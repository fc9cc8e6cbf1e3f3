#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Runs the same Google Benchmarks in two builds, one after the other, and prints their medians.

Usage: bench/side_by_side.py OLD_BUILD NEW_BUILD [FILTER] [REPETITIONS]
  (defaults: all benchmarks, 10 repetitions). Each build's bench/driver_bench is run with
  --benchmark_repetitions; the table shows the median real and CPU times of both builds and
  the ratio old/new of the CPU times, plus the counters of the new build.
"""
import json
import subprocess
import sys


def run(build, bench_filter, repetitions):
    command = [
        f"{build}/bench/driver_bench",
        f"--benchmark_filter={bench_filter}",
        f"--benchmark_repetitions={repetitions}",
        "--benchmark_report_aggregates_only=true",
        "--benchmark_format=json",
    ]
    out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return {
        b["run_name"]: b
        for b in json.loads(out)["benchmarks"]
        if b.get("aggregate_name") == "median"
    }


def shown(b):
    return f"{b['real_time']:>12.4g} {b['cpu_time']:>12.4g} {b['time_unit']:>3}"


COUNTERS = ("peak_MiB", "requests", "records")


def main():
    old_build, new_build = sys.argv[1], sys.argv[2]
    bench_filter = sys.argv[3] if len(sys.argv) > 3 else "."
    repetitions = int(sys.argv[4]) if len(sys.argv) > 4 else 10
    old = run(old_build, bench_filter, repetitions)
    new = run(new_build, bench_filter, repetitions)
    print(f"medians of {repetitions} repetitions; old: {old_build}, new: {new_build}")
    print(f"{'benchmark':<52} {'old real':>12} {'old cpu':>12}     {'new real':>12} {'new cpu':>12}"
          f"     {'old/new cpu':>11}  counters (old -> new)")
    for name, b in new.items():
        before = old.get(name)
        counters = ", ".join(
            f"{c} {before.get(c, 0) if before else 0:.4g} -> {b[c]:.4g}" for c in COUNTERS if c in b
        )
        if before is None:
            print(f"{name:<52} {'-':>12} {'-':>12}     {shown(b)} {'-':>11}  {counters}")
            continue
        ratio = before["cpu_time"] / b["cpu_time"]
        print(f"{name:<52} {shown(before)} {shown(b)} {ratio:>10.1f}x  {counters}")


if __name__ == "__main__":
    main()
