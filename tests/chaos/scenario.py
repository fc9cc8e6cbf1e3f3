# SPDX-License-Identifier: MIT
"""One run of the chaos line, chosen from its seed alone: the stations and their changing
values, what the line does to the frames and when, and how the host tool is configured.

A run has three phases, counted from the tool's first request: a clean prologue (the rate of
answered transactions of a clean line), the faults, and a clean end long enough for the tool
to give up every owed reply and poll a few passes at the clean rate again. Dead stations come
back and a lost port returns within the faults.
"""
import random

AREA_TABLES = {"0x": "co", "1x": "di", "3x": "ir", "4x": "hr", "3x_double": "ir",
               "4x_double": "hr", "3x_bit": "ir", "4x_bit": "hr"}
READ_FUNCTIONS = {"co": 1, "di": 2, "hr": 3, "ir": 4}
REPLY_FAULTS = ("dropped", "corrupted", "truncated", "late", "other station", "other function",
                "other length", "other request", "lower case", "noise")
# Cells the polled variables and one-shot reads are placed in, and the writes.
READ_SPAN = 400
FAR_ADDRESS = 65000
WRITE_REGISTERS = range(400, 600)
WRITE_COILS = range(400, 600)
# Counters start below this, far enough from 65535 not to wrap during a run.
COUNTER_START_LIMIT = 60000


def cells_of(area, address, bit, length):
    """The cells behind each value of a variable: [(table, address, bit or None), ...] per
    value (a 32-bit value has two cells, high word first)."""
    table = AREA_TABLES[area]
    if area.endswith("_double"):
        return [[(table, address + 2 * i, None), (table, address + 2 * i + 1, None)]
                for i in range(length // 2)]
    if area.endswith("_bit"):
        return [[(table, address + (bit + i) // 16, (bit + i) % 16)] for i in range(length)]
    return [[(table, address + i, None)] for i in range(length)]


def variable_text(variable, multi_station):
    """A variable as --tag or --once takes it: AREA:ADDRESS:LENGTH[:STATION]."""
    place = (f"{variable['address']}.{variable['bit']}" if variable["area"].endswith("_bit")
             else str(variable["address"]))
    text = f"{variable['area']}:{place}:{variable['length']}"
    return f"{text}:{variable['station']}" if multi_station else text


def write_text(write, multi_station):
    """A write as --write takes it: AREA:ADDRESS[:STATION]=VALUE,..."""
    place = (f"{write['address']}.{write['bit']}" if write["area"] == "4x_bit"
             else str(write["address"]))
    station = f":{write['station']}" if multi_station else ""
    return f"{write['area']}:{place}{station}=" + ",".join(str(v) for v in write["values"])


def write_cells(write):
    """[(table, address, bit or None, value)] of every coil, register or bit a write sets."""
    area, values = write["area"], write["values"]
    if area == "0x":
        return [("co", write["address"] + i, None, v) for i, v in enumerate(values)]
    if area == "4x_bit":
        bit = write["bit"]
        return [("hr", write["address"] + (bit + i) // 16, (bit + i) % 16, v)
                for i, v in enumerate(values)]
    words = values if area == "4x" else [w for v in values for w in (v >> 16, v & 0xFFFF)]
    return [("hr", write["address"] + i, None, w) for i, w in enumerate(words)]


class ScenarioMaker:
    """Every choice of one run, drawn in a fixed order from one generator seeded with the seed
    (a change of that order gives every seed another run)."""

    def __init__(self, seed):
        self.seed = seed
        self.random = random.Random(seed)

    def make(self):
        r = self.random
        multi = r.random() < 0.6
        stations = sorted(r.sample(range(1, 248), r.randint(2, 4) if multi else 1))
        silent = ([r.choice([s for s in range(1, 248) if s not in stations])]
                  if multi and r.random() < 0.1 else [])
        tool = self.tool_settings(multi, stations)
        tags = self.read_list(stations) + [self.variable(s) for s in silent]
        once = [self.variable(r.choice(stations)) for _ in range(r.choice((0, 0, 1, 2, 3)))]
        writes = self.writes(stations)
        line = self.line(tool, stations, tags, silent)
        return {"seed": self.seed, "multiStation": multi, "stations": stations, "tool": tool,
                "tags": tags, "once": once, "writes": writes, "line": line,
                "data": self.data(stations, tags + once, writes)}

    def read_list(self, stations):
        """A short or a long list; sometimes of variables alike (one area and length) spread
        over the table, whose requests look alike on the line."""
        r = self.random
        count = r.randint(8, 30) if r.random() < 0.4 else r.randint(1, 4)
        if r.random() < 0.3:
            pattern = self.variable(stations[0])
            return [dict(pattern, station=r.choice(stations), address=r.randint(0, FAR_ADDRESS))
                    for _ in range(count)]
        return [self.variable(r.choice(stations)) for _ in range(count)]

    def tool_settings(self, multi, stations):
        """Time-outs, retries, demotion, frame size and the station of a single-station run."""
        r = self.random
        timeout = r.choice((150, 200, 250, 300, 400))
        return {"timeoutMs": timeout,
                "charTimeoutMs": r.randint(50, min(250, timeout)),
                "quietMs": r.randint(30, 250),
                "retries": r.randint(1, 4),
                "demoteAfter": r.randint(1, 4),
                "demoteMs": r.randint(100, 8000),
                "reopenMs": r.randint(100, 800),
                "maxFrameWords": r.choice((125, 125, 64, 16, 8, 5, 3, 2, 1)),
                "station": stations[0],
                "onceTable": r.random() < 0.1}

    def variable(self, station):
        """A polled variable or one-shot read: any area, mostly short, near the start of its
        table or anywhere in it."""
        r = self.random
        area = r.choice(list(AREA_TABLES))
        bit = 0
        if area in ("0x", "1x"):
            length = r.choice((1, 3, 8, 16, 40)) if r.random() < 0.9 else r.randint(100, 300)
        elif area.endswith("_double"):
            length = 2 * r.randint(1, 8)
        elif area.endswith("_bit"):
            length, bit = r.randint(1, 40), r.randint(0, 15)
        else:
            length = r.randint(1, 20) if r.random() < 0.85 else r.randint(60, 130)
        address = r.randint(0, READ_SPAN - 1) if r.random() < 0.6 else r.randint(0, FAR_ADDRESS)
        return {"area": area, "address": address, "bit": bit, "length": length,
                "station": station}

    def writes(self, stations):
        """Writes to cells no other write touches, so that each one's fate can be told."""
        r = self.random
        taken = set()
        writes = []
        for _ in range(r.choice((0, 1, 2, 4, 6, 8, 20, 40))):
            write = self.write(r.choice(stations))
            cells = {(write["station"], table, address)
                     for table, address, _, _ in write_cells(write)}
            if not cells & taken:
                taken |= cells
                writes.append(write)
        return writes

    def write(self, station):
        """One --write: coils, registers, 32-bit values or bits inside one register."""
        r = self.random
        area = r.choice(("0x", "4x", "4x", "4x_double", "4x_bit"))
        if area == "0x":
            return {"area": area, "address": r.choice(WRITE_COILS), "station": station,
                    "values": [r.randint(0, 1) for _ in range(r.randint(1, 3))]}
        if area == "4x_bit":
            bit = r.randint(0, 15)
            count = r.randint(1, 16 - bit)  # within one register
            return {"area": area, "address": r.choice(WRITE_REGISTERS), "bit": bit,
                    "station": station, "values": [r.randint(0, 1) for _ in range(count)]}
        count = r.choice((1, 1, 2, 5, 10)) if area == "4x" else r.randint(1, 2)
        top = 0xFFFF if area == "4x" else 0xFFFFFFFF
        return {"area": area, "address": r.choice(WRITE_REGISTERS), "station": station,
                "values": [r.randint(0, top) for _ in range(count)]}

    def line(self, tool, stations, tags, silent):
        """The phases, the adapter's echo, the faults and their rates, the stations' pace, the
        dead stations and the port loss; the run's duration and SIGTERM with them."""
        r = self.random
        timeout_s = tool["timeoutMs"] / 1000
        fault_rate = r.choice((0.0, 0.05, 0.15, 0.3, 0.5))
        echo = r.choice(("absent", "absent", "clean", "garbled"))
        tool["echo"] = self.echo_option(echo)
        polled = sorted({t["station"] for t in tags} - set(silent))
        faults_s = r.uniform(1.5, 4.0) if r.random() < 0.97 else r.uniform(20, 40)
        # Without a clean start the writes and one-shot reads meet the faults too.
        prologue_s = r.uniform(0.8, 1.5) if r.random() < 0.65 else 0.0
        line = {
            "phases": {"prologueS": prologue_s, "faultsS": faults_s},
            "echo": echo,
            "echoFaultRate": r.uniform(0.1, 0.4) if echo == "garbled" else 0.0,
            "firstEchoGarbled": echo != "absent" and r.random() < 0.3,
            "requestLoss": r.uniform(0, fault_rate / 2),
            "busyRate": r.uniform(0, fault_rate / 4),
            "replyFaultRate": fault_rate,
            "replyFaults": r.sample(REPLY_FAULTS, r.randint(1, len(REPLY_FAULTS))),
            "lateS": [timeout_s + 0.02, 2.5 * timeout_s],
            "delaysS": {str(s): self.reply_delay(timeout_s) for s in stations},
            "dead": self.dead_windows(polled, prologue_s, faults_s),
            "silent": silent,
            "portLoss": None,
        }
        if r.random() < 0.25:
            down = r.uniform(0.3, min(2.0, faults_s * 0.6))
            line["portLoss"] = [prologue_s + r.uniform(0, faults_s - down - 0.1), down]
        line["phases"]["cleanS"] = self.clean_phase_s(tool, line)
        duration = prologue_s + faults_s + line["phases"]["cleanS"]
        tool["durationS"] = round(duration + 0.5, 2)
        tool["sigtermAfterS"] = round(r.uniform(0.3, duration), 2) if r.random() < 0.25 else None
        return line

    def reply_delay(self, timeout_s):
        """How long a station takes to answer, from and to: a few milliseconds, or (a slow
        station) a good part of the reply time-out; each station keeps its pace."""
        pace = (self.random.uniform(0.3, 0.6) * timeout_s if self.random.random() < 0.2
                else self.random.uniform(0.005, 0.012))
        return [0.95 * pace, 1.05 * pace]

    def echo_option(self, echo):
        """--echo: auto, or the mode that fits the adapter (on only when it echoes)."""
        if self.random.random() < 0.7:
            return "auto"
        return "off" if echo == "absent" else "on"

    def dead_windows(self, polled, prologue_s, faults_s):
        """[station, from, to] (seconds after the first request) of stations that fall
        silent during the faults; sometimes several at once."""
        r = self.random
        together = r.random() < 0.3
        windows = []
        for station in r.sample(polled, min(len(polled), r.choice((0, 1, 1, 2, 2, 3)))):
            if not (together and windows):
                length = r.uniform(0.2, faults_s * 0.8)
                start = prologue_s + r.uniform(0, faults_s - length)
            windows.append([station, start, start + length])
        return windows

    def clean_phase_s(self, tool, line):
        """Long enough for every owed reply to be given up, the port reopened, and about two
        seconds of polling."""
        timeout_s, quiet_s = tool["timeoutMs"] / 1000, tool["quietMs"] / 1000
        given_up_s = max(3 * timeout_s + quiet_s, 1.5 * line["lateS"][1] + 0.25)
        return given_up_s + tool["reopenMs"] / 1000 + self.random.uniform(1.5, 2.5)

    def data(self, stations, variables, writes):
        """Initial values, counters and randomly changing cells of every station."""
        r = self.random
        data = {str(s): {"initial": {"co": {}, "di": {}, "ir": {}, "hr": {}}, "counters": [],
                         "changing": [], "changesPerS": r.uniform(5, 60), "refused": []}
                for s in stations}
        for variable in variables:
            station = data.get(str(variable["station"]))
            if station is None:
                continue
            for cells in cells_of(variable["area"], variable["address"], variable["bit"],
                                  variable["length"]):
                for table, address, _ in cells:
                    self.place_cell(station, table, address)
        for write in writes:
            station = data[str(write["station"])]
            for table, address, bit, _ in write_cells(write):
                # A register written bit by bit changes only by those writes, so that a bit
                # set in it tells which request set it.
                self.place_cell(station, table, address, changing=bit is None)
            if r.random() < 0.15:
                table, address, _, _ = write_cells(write)[-1]
                station["refused"].append([table, address])
        return data

    def place_cell(self, station, table, address, changing=True):
        """A cell's first value, and whether it counts, changes at random or stays."""
        r = self.random
        initial = station["initial"][table]
        if address in initial:
            if not changing:
                station["counters"] = [c for c in station["counters"] if c[:2] != [table, address]]
                station["changing"] = [c for c in station["changing"] if c != [table, address]]
            return
        if not changing:
            initial[address] = r.randint(0, 0xFFFF)
        elif table in ("co", "di"):
            initial[address] = r.randint(0, 1)
            station["changing"].append([table, address])
        elif r.random() < 0.3:
            initial[address] = r.randint(0, COUNTER_START_LIMIT)
            station["counters"].append([table, address, r.uniform(0.02, 0.2)])
        else:
            initial[address] = r.randint(0, 0xFFFF)
            station["changing"].append([table, address])


def make_scenario(seed):
    return ScenarioMaker(seed).make()
