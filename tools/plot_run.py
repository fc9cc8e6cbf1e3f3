#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Draws a run of modbus-ascii-host from its --log file into one PNG picture.

    tools/plot_run.py run.jsonl -o run.png [--title TEXT]

Panels, top to bottom: each tag's values over time, one panel per area that the run polled
(coils, discrete inputs, input registers, their bits and 32-bit values, then the same of the
holding registers); the response-time distribution of each station; the failures of each
station over time (cumulative, with the count of each kind in the legend).
Needs Debian's python3-matplotlib; run it with /usr/bin/python3.
"""
import argparse
import collections
import json
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (the back end is chosen first)

# Panels of tag values, in this order: area and title.
AREA_PANELS = [
    ("0x", "0x coils"),
    ("1x", "1x discrete inputs"),
    ("3x", "3x input registers"),
    ("3x_bit", "3x_bit bits of input registers"),
    ("3x_double", "3x_double 32-bit input values"),
    ("4x", "4x holding registers"),
    ("4x_bit", "4x_bit bits of holding registers"),
    ("4x_double", "4x_double 32-bit holding values"),
]
BIT_AREAS = ("0x", "1x", "3x_bit", "4x_bit")
FAILURE_KINDS = ("noReply", "badContent", "wrongLength", "exception")
WIDTH_IN = 11
DEFAULT_DPI = 100
LEGEND_FONT = 7


def read_log(path):
    """The pass and transaction records of a run log, in file order."""
    passes, transactions = [], []
    with open(path, encoding="utf-8") as stream:
        for number, line in enumerate(stream, 1):
            if not line.strip():
                continue
            try:
                record = json.loads(line)
            except json.JSONDecodeError as error:
                raise SystemExit(f"plot_run: {path}:{number}: not a JSON line: {error}")
            kind = record.get("record")
            if kind == "pass":
                passes.append(record)
            elif kind == "transaction":
                transactions.append(record)
    return passes, transactions


def tag_series(passes, start):
    """{area: {series label: ([seconds], [values])}} in panel order; a tag of several values
    gives one series per value, labelled name[i]."""
    panels = collections.OrderedDict((area, collections.OrderedDict()) for area, _ in AREA_PANELS)
    for record in passes:
        seconds = record["time"] - start
        for tag in record["tags"]:
            if tag["values"] is None:  # not confirmed by the slave in this pass: a gap
                continue
            several = len(tag["values"]) > 1
            for index, value in enumerate(tag["values"]):
                label = f"{tag['name']}[{index}]" if several else tag["name"]
                times, values = panels[tag["area"]].setdefault(label, ([], []))
                times.append(seconds)
                values.append(value)
    return collections.OrderedDict((a, s) for a, s in panels.items() if s)


def draw_bits(axes, series):
    """Bits as stacked step lines, one row per bit, named on the y axis."""
    rows = list(series.items())
    for row, (label, (times, values)) in enumerate(rows):
        axes.step(times, [row * 1.5 + 0.6 * v for v in values], where="post", linewidth=1)
    axes.set_yticks([row * 1.5 + 0.3 for row in range(len(rows))])
    axes.set_yticklabels([label for label, _ in rows], fontsize=LEGEND_FONT)
    axes.set_ylim(-0.5, len(rows) * 1.5)


def draw_values(axes, series):
    for label, (times, values) in series.items():
        axes.step(times, values, where="post", linewidth=1, label=label)
    axes.legend(fontsize=LEGEND_FONT, ncol=2, loc="upper left", bbox_to_anchor=(1.01, 1.0))


def draw_response_times(axes, transactions):
    by_station = collections.defaultdict(list)
    for record in transactions:
        if record.get("response_ms") is not None:
            by_station[record["station"]].append(record["response_ms"])
    for station, samples in sorted(by_station.items()):
        ordered = sorted(samples)
        median = ordered[(len(ordered) + 1) // 2 - 1]
        axes.hist(samples, bins=40, histtype="step", linewidth=1.2,
                  label=f"station {station}: {len(samples)} replies, median {median:.2f} ms")
    axes.set_xlabel("response time (ms)")
    axes.set_ylabel("replies")
    if by_station:
        axes.legend(fontsize=LEGEND_FONT, loc="upper left", bbox_to_anchor=(1.01, 1.0))
    else:
        axes.text(0.5, 0.5, "no replies", transform=axes.transAxes, ha="center")


def draw_failures(axes, transactions, start, end):
    by_station = collections.defaultdict(list)
    for record in transactions:
        by_station[record["station"]].append(record)
    for station, records in sorted(by_station.items()):
        failed = [r for r in records if r["outcome"] != "accepted"]
        kinds = collections.Counter(r["outcome"] for r in failed)
        times = [0.0] + [r["time"] - start for r in failed] + [end - start]
        counts = list(range(len(failed) + 1)) + [len(failed)]
        detail = ", ".join(f"{kind} {kinds[kind]}" for kind in FAILURE_KINDS if kinds[kind])
        axes.step(times, counts, where="post", linewidth=1.2,
                  label=f"station {station}: {len(failed)} of {len(records)}"
                        + (f" ({detail})" if detail else ""))
    axes.set_xlabel("seconds since the start of the run")
    axes.set_ylabel("failures (cumulative)")
    axes.legend(fontsize=LEGEND_FONT, loc="upper left", bbox_to_anchor=(1.01, 1.0))


def draw(passes, transactions, output, title, dpi):
    times = [r["time"] for r in passes + transactions]
    start, end = min(times), max(times)
    panels = tag_series(passes, start)
    heights = [max(1.0, 0.2 * len(s)) if a in BIT_AREAS else 1.6 for a, s in panels.items()]
    heights += [1.8, 1.8]
    figure, axes = plt.subplots(len(heights), 1, figsize=(WIDTH_IN, sum(heights) + 0.8),
                                gridspec_kw={"height_ratios": heights}, squeeze=False)
    axes = axes[:, 0]
    titles = dict(AREA_PANELS)
    for panel_axes, (area, series) in zip(axes, panels.items()):
        (draw_bits if area in BIT_AREAS else draw_values)(panel_axes, series)
        panel_axes.set_title(titles[area], fontsize=9, loc="left")
        panel_axes.set_xlim(0, max(end - start, 1e-3))
    draw_response_times(axes[-2], transactions)
    axes[-2].set_title("response times per station", fontsize=9, loc="left")
    draw_failures(axes[-1], transactions, start, end)
    axes[-1].set_title("failures per station", fontsize=9, loc="left")
    axes[-1].set_xlim(0, max(end - start, 1e-3))
    figure.suptitle(title, fontsize=11)
    figure.tight_layout()
    figure.savefig(output, dpi=dpi)
    return len(panels) + 2


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("log", help="the file written by modbus-ascii-host --log")
    parser.add_argument("-o", "--output", required=True, help="the PNG picture to write")
    parser.add_argument("--title", default="modbus-ascii-host run")
    parser.add_argument("--dpi", type=int, default=DEFAULT_DPI, help="dots per inch (default 100)")
    args = parser.parse_args(argv)
    passes, transactions = read_log(args.log)
    if not passes and not transactions:
        raise SystemExit(f"plot_run: {args.log} holds no pass or transaction records")
    panels = draw(passes, transactions, args.output, args.title, args.dpi)
    stations = len({r["station"] for r in transactions})
    print(f"{args.output}: {panels} panels from {len(passes)} passes and "
          f"{len(transactions)} transactions with {stations} stations")


if __name__ == "__main__":
    main(sys.argv[1:])
