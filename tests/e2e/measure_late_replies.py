#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures the late-reply run of test_field_line.py (30 % faults, late replies about three
time-outs after their request) with the default options and with --quiet-ms set by hand above
the lateness, and prints for each: seconds, wrong values shown as confirmed, writes whose
outcome the datastore contradicts, confirmed rows at the end, and the ratio of the two times.

    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/measure_late_replies.py [SEED ...]
"""
import sys
import time

from test_field_line import LATE_EXTRA_MS, run_late_line
from test_noisy_line import TIMEOUT_MS, expected_rows, initial_data, planned_writes

# Above the latest late reply of the relay (time-out + LATE_EXTRA_MS + 120 ms).
HAND_QUIET_MS = LATE_EXTRA_MS + 200


def wrong_values(run, rows):
    return sum(1 for o in run.objects if "values" in o for row in o["values"]
               if row["values"] is not None and row["values"] != rows[row["name"]])


def false_outcomes(run, writes, store):
    expected = {"done": lambda b, w: [w], "failed": lambda b, w: [b],
                "unconfirmed": lambda b, w: [b, w]}
    reported = [o["write"] for o in run.objects if "write" in o]
    count = 0
    for (_, cells), result in zip(writes, reported):
        held = [store[t].get(a, 0) for t, a, _, _ in cells]
        allowed = expected.get(result["outcome"], lambda b, w: [])(
            [c[2] for c in cells], [c[3] for c in cells])
        count += held not in allowed
    return count


def measure(seed, *host_arguments):
    data = initial_data()
    writes = planned_writes(data)
    started = time.monotonic()
    run, _, store = run_late_line(data, writes, *host_arguments, seed=seed)
    seconds = time.monotonic() - started
    last = run.last_values()
    confirmed = sum(1 for values in last.values() if values is not None)
    late = run.summary().get("lateReplies")
    print(f"seed {seed} {' '.join(host_arguments) or 'defaults':>16}: {seconds:6.1f} s, "
          f"wrong values shown {wrong_values(run, expected_rows(data))}, "
          f"false write outcomes {false_outcomes(run, writes, store)}, "
          f"confirmed at the end {confirmed}/{len(last)}, late {late}", flush=True)
    return seconds


def main(seeds):
    for seed in seeds:
        default = measure(seed)
        by_hand = measure(seed, "--quiet-ms", str(HAND_QUIET_MS))
        print(f"seed {seed}: default / --quiet-ms {HAND_QUIET_MS} = {default / by_hand:.2f} "
              f"(time-out {TIMEOUT_MS} ms)", flush=True)


if __name__ == "__main__":
    main([int(a) for a in sys.argv[1:]] or [8])
