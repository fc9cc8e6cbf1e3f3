#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures what one dead station costs the live ones: three live stations polled for 30 s
without it, with it at the default options, and with it never set aside (--demote-after above
any run). Prints the transactions the live stations answered in each run and the ratio of the
run with the dead station to the one without.

    MODBUS_HOST=build/modbus-ascii-host MODBUS_SIM=tools/sim_slave.py \\
        /usr/bin/python3 tests/e2e/measure_dead_station.py [SECONDS]
"""
import sys

import test_e2e
from test_e2e import Rig
from test_field_line import DEAD_STATION, LIVE_STATIONS, four_station_arguments, four_station_config

NEVER = "1000000"


def live_answers(seconds, *arguments, dead=True):
    config = four_station_config(DEAD_STATION) if dead else four_station_config()
    if not dead:
        arguments = ["--multi-station",
                     *[a for s in LIVE_STATIONS for a in ("--tag", f"4x:0:1:{s}")], *arguments]
    else:
        arguments = [*four_station_arguments(), *arguments]
    with Rig(config) as rig:
        run = rig.host("--format", "json", "--once-table", "--duration", str(seconds), *arguments)
    health = {s["station"]: s for s in run.summary()["stations"]}
    return sum(health[s]["accepted"] for s in LIVE_STATIONS)


def main(seconds):
    test_e2e.HOST_TIMEOUT_S = seconds + 30
    alone = live_answers(seconds, dead=False)
    print(f"{seconds} s, three live stations alone: {alone} answered", flush=True)
    for label, arguments in (("with a dead station, defaults", []),
                             ("with a dead station never set aside", ["--demote-after", NEVER])):
        answered = live_answers(seconds, *arguments)
        print(f"{seconds} s, {label}: {answered} answered, ratio {answered / alone:.3f}",
              flush=True)


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 30)
