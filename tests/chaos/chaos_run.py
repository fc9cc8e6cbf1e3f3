#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Randomized line runs of modbus-ascii-host: each seed picks a whole run, and the run is
checked against invariants instead of expected values.

Each seed (scenario.py) chooses the stations and their changing values, a line between them
and the tool (chaos_line.py: echo clean, garbled or absent; requests and replies lost; late
replies; well-formed replies of the wrong station, function, length or request; noise; slow
stations; stations that die and come back; the port taken away and given back) and the
tool's configuration (short or long read lists, one station or --multi-station, writes,
one-shot reads, time-outs, retries, demotion, SIGTERM at a random moment). The faults last
from a clean start to a clean end. After the run, invariants.py checks the tool's JSON
output and trace against the stations' history: confirmed values were held (a), write
outcomes are true (b), every pass reads every live address and the clean rate comes back
(c), the run ends properly, within a second of SIGTERM, in bounded memory (d), the line never
falls idle (e).

A seed alone reproduces its run: its scenario is the seed's, only the exact interleaving of
frames depends on the machine's timing.

    MODBUS_HOST=build/modbus-ascii-host tests/chaos/chaos_run.py --seed 42

Briefly, as CI does (e2e_chaos_brief): a dozen seeds and, with --kept, every seed of
kept_seeds.txt, which once broke an invariant; and a few seeds with the tool connected to the
line over loopback TCP, as to a serial device server (--link tcp):

    tests/chaos/chaos_run.py --host build/modbus-ascii-host --seeds 1-12 --kept --jobs 2
    tests/chaos/chaos_run.py --host build/modbus-ascii-host --seeds 1-6 --link tcp --jobs 2

For hours, seed after seed from 1000 on, every seed's outcome appended to a file, the run
directories (scenario, the line's history, the tool's output) of failing seeds kept, then
the counts:

    tests/chaos/chaos_run.py --host build/modbus-ascii-host --seeds 1000- --hours 3 \\
        --jobs 2 --results chaos.jsonl --keep-dir chaos-failures
    tests/chaos/chaos_run.py --summary chaos.jsonl

A seed runs 1 to 45 seconds, 7 on average; two jobs suit a two-core machine (each seed's
line and tool take about half a core). --show N prints the scenario of seed N.

A seed that breaks an invariant is run once more (--no-confirm skips that): a bound in time
(c-rate, d-stop, e) broken once and not again is put down to the machine's load and reported
as "not repeated"; any other violation fails the seed. CI runs it with --time-bounds report:
there the other tests load the machine, so a bound in time missed is printed and never fails
the leg (bounds in time are for the long runs on a quiet machine). Exit status: 0 when no seed failed,
1 otherwise, 77 when the host tool is missing. The line needs neither socat nor pymodbus: it
makes its own pseudo-terminal and answers in Python (Debian's /usr/bin/python3).

A change to scenario.py changes what every seed means: the seeds of kept_seeds.txt are then
found again (run the tool before the fixes on a range of seeds).
"""
import argparse
import collections
import concurrent.futures
import json
import os
import sys
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

from chaos_rig import run_seed  # noqa: E402
from invariants import TIMING_INVARIANTS, check_run  # noqa: E402
from scenario import make_scenario  # noqa: E402

KEPT_SEEDS = os.path.join(HERE, "kept_seeds.txt")
SKIP_EXIT_STATUS = 77


def scenario_kinds(scenario):
    """What a seed's run is made of, in a few words."""
    line, tool, tags = scenario["line"], scenario["tool"], scenario["tags"]
    kinds = ["tcp"] if scenario.get("link") == "tcp" else []
    kinds += [f"multi {len(scenario['stations'])}" if scenario["multiStation"] else "single",
             f"{'long' if len(tags) >= 8 else 'short'} list",
             f"echo {line['echo']}/{tool['echo']}", f"faults {line['replyFaultRate']:.0%}"]
    kinds += [k for k, present in (
        ("alike", len(tags) > 1 and len({(t["area"], t["length"]) for t in tags}) == 1),
        ("writes", scenario["writes"]), ("many writes", len(scenario["writes"]) >= 20),
        ("once", scenario["once"]), ("faults from the start", line["phases"]["prologueS"] == 0),
        ("first echo garbled", line["firstEchoGarbled"]), ("dead", line["dead"]),
        ("silent", line["silent"]), ("port loss", line["portLoss"]),
        ("sigterm", tool["sigtermAfterS"] is not None), ("once-table", tool["onceTable"]),
        ("slow", any(low > 0.02 for low, _ in line["delaysS"].values())),
        ("long", line["phases"]["faultsS"] > 10)) if present]
    return kinds


def checked_run(seed, host, link, keep_dir):
    """Runs and checks a seed: the violations; the run directory kept when there are any."""
    result = run_seed(seed, host, link)
    try:
        violations, notes = check_run(result)
        if violations and keep_dir:
            result.keep(keep_dir)
    finally:
        result.discard()
    return result, [str(v) for v in violations], notes


def check_seed(seed, host, link, keep_dir):
    """Runs a seed and checks it: {"seed", "violations", "kinds", "seconds", ...}."""
    started = time.monotonic()
    result, violations, notes = checked_run(seed, host, link, keep_dir)
    return {"seed": seed, "violations": violations, "kinds": scenario_kinds(result.scenario),
            "seconds": round(time.monotonic() - started, 1), "status": result.status,
            "peakKb": result.peak_kb, "load": round(os.getloadavg()[0], 1), **notes}


def check_and_confirm(seed, host, link, keep_dir, confirm, time_bounds_fail):
    """Runs and checks a seed, and once more when it broke an invariant. It fails on any
    violation, except one of a time bound that the second run does not repeat, or any of a
    time bound when those are only reported."""
    try:
        outcome = check_seed(seed, host, link, keep_dir)
        broken = {invariant_of(v) for v in outcome["violations"]}
        if not time_bounds_fail:
            broken -= set(TIMING_INVARIANTS)
        if broken and confirm:
            outcome["again"] = checked_run(seed, host, link, keep_dir and os.path.join(
                keep_dir, "again"))[1]
            outcome["reproduced"] = sorted(broken & {invariant_of(v) for v in outcome["again"]})
            broken = {b for b in broken if b not in TIMING_INVARIANTS} | set(
                outcome["reproduced"])
    except Exception as error:  # noqa: BLE001 - a harness fault is reported with its seed
        where = " | ".join(traceback.format_exc().strip().splitlines()[-3:])
        outcome = {"seed": seed, "violations": [f"harness: {error!r} ({where})"], "kinds": [],
                   "seconds": 0, "status": None, "peakKb": 0, "load": 0}
        broken = {"harness"}
    outcome["failed"] = sorted(broken)
    return outcome


def invariant_of(violation):
    return violation.split(":", 1)[0]


def parse_seeds(text):
    """"7", "1-20" or "1000-" (open-ended: with --hours)."""
    first, dash, last = text.partition("-")
    if not dash:
        return range(int(first), int(first) + 1)
    return range(int(first), int(last) + 1) if last else range(int(first), sys.maxsize)


def kept_seeds():
    seeds = []
    with open(KEPT_SEEDS, encoding="utf-8") as stream:
        for line in stream:
            text = line.split("#", 1)[0].strip()
            if text:
                seeds.append(int(text))
    return seeds


def report(outcome, results):
    seed, violations = outcome["seed"], outcome["violations"]
    verdict = "FAILED" if outcome["failed"] else "not repeated" if "again" in outcome \
        else "time bound missed, reported" if violations else "ok"
    text = f"seed {seed}: {verdict} {outcome['seconds']} s " \
           f"[{', '.join(outcome['kinds'])}] status {outcome['status']}, " \
           f"peak {outcome['peakKb']} kB, load {outcome['load']}" + (
               f", recovered {outcome['recovered']}" if "recovered" in outcome else "")
    for violation in violations:
        text += f"\n  {violation}"
    if "again" in outcome:
        text += f"\n  run again: {len(outcome['again'])} violations, " \
                f"reproduced {outcome['reproduced'] or 'none'}"
        text += "".join(f"\n    {v}" for v in outcome["again"])
    print(text, flush=True)
    if results:
        with open(results, "a", encoding="utf-8") as stream:
            stream.write(json.dumps(outcome) + "\n")


def run_seeds(seeds, args):
    """Runs seeds on args.jobs workers until they are done or args.hours have passed."""
    deadline = time.monotonic() + args.hours * 3600 if args.hours else None
    seeds = iter(seeds)
    failing, done = [], 0
    with concurrent.futures.ProcessPoolExecutor(args.jobs) as pool:
        running = set()
        while True:
            while len(running) < args.jobs and (deadline is None or time.monotonic() < deadline):
                seed = next(seeds, None)
                if seed is None:
                    break
                running.add(pool.submit(check_and_confirm, seed, args.host, args.link, args.keep_dir,
                                        not args.no_confirm, args.time_bounds == "fail"))
            if not running:
                break
            finished, running = concurrent.futures.wait(
                running, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in finished:
                outcome = future.result()
                done += 1
                report(outcome, args.results)
                if outcome["failed"]:
                    failing.append(outcome["seed"])
    print(f"{done} seeds, {done - len(failing)} kept every invariant"
          + (f"; broken by seeds {sorted(failing)}" if failing else ""), flush=True)
    return 1 if failing else 0


def summarize(results):
    """Counts of a results file: seeds, failures by invariant, scenario kinds."""
    with open(results, encoding="utf-8") as stream:
        outcomes = [json.loads(line) for line in stream if line.strip()]
    failed = collections.defaultdict(list)
    kinds = collections.Counter()
    for outcome in outcomes:
        for invariant in outcome["failed"]:
            failed[invariant].append(outcome["seed"])
        if outcome["violations"] and not outcome["failed"]:
            failed["not repeated" if "again" in outcome else "reported"].append(outcome["seed"])
        kinds.update("multi" if kind.startswith("multi") else kind for kind in outcome["kinds"])
    clean = sum(1 for o in outcomes if not o["failed"])
    print(f"{len(outcomes)} seeds, {clean} without a failure, "
          f"{sum(o['seconds'] for o in outcomes) / 3600:.2f} hours of runs")
    for invariant, seeds in sorted(failed.items()):
        print(f"  {invariant}: {len(seeds)} seeds: {sorted(seeds)}")
    print("  kinds: " + ", ".join(f"{kind} {count}" for kind, count in kinds.most_common()))


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--host", default=os.environ.get("MODBUS_HOST", ""),
                        help="modbus-ascii-host (default: $MODBUS_HOST)")
    parser.add_argument("--seed", type=int, action="append", default=[],
                        help="a seed to run (may be given several times)")
    parser.add_argument("--seeds", help="seeds A-B, or A- for an open range with --hours")
    parser.add_argument("--kept", action="store_true",
                        help="also the seeds of kept_seeds.txt, which once failed")
    parser.add_argument("--hours", type=float, help="start no seed after this many hours")
    parser.add_argument("--jobs", type=int, default=1, help="seeds run at once")
    parser.add_argument("--results", help="append each seed's outcome to this file (JSON lines)")
    parser.add_argument("--keep-dir", help="keep the run directory of failing seeds here")
    parser.add_argument("--no-confirm", action="store_true",
                        help="do not run a failing seed a second time")
    parser.add_argument("--link", choices=("serial", "tcp"), default="serial",
                        help="the tool's port: a pseudo-terminal (default), or a loopback TCP "
                             "connection to the line as to a serial device server (tcp://)")
    parser.add_argument("--time-bounds", choices=("fail", "report"), default="fail",
                        help="whether a bound in time (c-rate, d-stop, e) fails a seed or is "
                             "only reported (default: fail)")
    parser.add_argument("--show", type=int, metavar="SEED", help="print a seed's scenario")
    parser.add_argument("--summary", metavar="RESULTS",
                        help="summarize a --results file: failures by invariant, kinds of run")
    return parser.parse_args(argv)


def main(argv):
    args = parse_arguments(argv)
    if args.show is not None:
        print(json.dumps(make_scenario(args.show), indent=1))
        return 0
    if args.summary:
        summarize(args.summary)
        return 0
    if not (args.host and os.access(args.host, os.X_OK)):
        print("skipped: --host or MODBUS_HOST must name the built modbus-ascii-host")
        return SKIP_EXIT_STATUS
    if args.seeds and args.seeds.endswith("-") and not args.hours:
        sys.exit("an open range of seeds needs --hours")
    named = list(args.seed) + (kept_seeds() if args.kept else [])
    return run_seeds(named_then_ranged(named, parse_seeds(args.seeds) if args.seeds else []),
                     args)


def named_then_ranged(named, ranged):
    """The seeds named one by one first, then the range without them."""
    yield from named
    yield from (seed for seed in ranged if seed not in named)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
