# SPDX-License-Identifier: MIT
"""What every run of the chaos line must show, checked from the tool's output (its JSON
lines and, in the same order, its trace and messages) and the stations' history.

a. Every value shown confirmed is one its station held between its oldest answer (ageMs
   before the table; without ageMs: the table before, or the start for a one-shot read),
   less the longest a reply takes to come back on this line, and the table; a polled one is
   no older than the summary's maxAgeMs. A station the tool has set aside has its values
   shown not confirmed until it answers again.
b. Every write request reported done was carried out by its station with its value; none
   reported failed was.
c. Every pass asks each station that answers for every polled address the driver's read list
   covers, and takes no read's answer twice (the rotation of the list does not start again
   within a pass); no read of the list waits more than two turns of the list, every request
   with all its attempts ("c"). Once the faults are over and every owed reply given up, answered
   transactions take no more than 1/0.9 of the time they took on the clean line at the start
   ("c-rate").
d. Every run ends with status 0 or 1 (1 exactly when a request was abandoned or a write not
   done or sent), a table, a row per write and the summary; a SIGTERM ends it within a second
   ("d-stop"), the summary saying so; the tool's peak resident memory (VmHWM) stays under
   PEAK_MEMORY_KB.
e. The line never falls idle while the port is there: no gap between two requests longer
   than the tool's own waits allow (reply time-out, inter-character time-out, quiet gap, the
   hold for owed replies). The tool keeps the last station that may answer on its read list,
   so even a line of dead stations is polled.
"""
import collections
import json
import re
import statistics

from chaos_slave import History, cell_key
from scenario import READ_FUNCTIONS, cells_of, variable_text, write_cells, write_text

# How much later than the tool's print the runner may read a line, and how much sooner a
# station's history may have been stamped than the tool's clock says.
READ_SKEW_S = 0.25
CLOCK_SLACK_S = 0.02
AGE_CLOCK_SLACK_MS = 5
# The machine is shared: a wait of the tool or the line may overrun by this much.
LOAD_SLACK_S = 0.5
STOP_WITHIN_S = 1.0
PEAK_MEMORY_KB = 32 * 1024
RECOVERED_SHARE = 0.9
PASSES_TO_RECOVER = 3
MEASURED_AT_LEAST_S = 1.0
# The tool gives an owed reply up after 3 reply time-outs plus the quiet gap, or 1.5 times
# the longest late reply it has seen, at most 10 time-outs plus the quiet gap.
DEFAULT_TIMEOUTS, LEARNED_MARGIN, MOST_TIMEOUTS = 3, 1.5, 10
TRACE_TX = re.compile(r"^\d+\.\d+ TX :([0-9A-F]+)$")
TRACE_RX = re.compile(r"^\d+\.\d+ RX .* -> (-?\d+) ")
ACCEPTED = 1  # what DataCom returns for a reply it took
STANDING = re.compile(r"^modbus-ascii-host: \S+: station (\d+) (set aside|probing|answering)")
PORT = re.compile(r"^modbus-ascii-host: \S+: (?:serial port|connection) \S+ (lost|back)")


# Invariants with a bound in time, which the machine's load may break once: a finding only
# when a second run of the seed breaks it again.
TIMING_INVARIANTS = ("c-rate", "d-stop", "e")


class Violation:
    def __init__(self, invariant, evidence):
        self.invariant = invariant
        self.evidence = evidence

    def __str__(self):
        return f"{self.invariant}: {self.evidence}"


class Run:
    """A finished run seen through its output: tables, writes, summary and trace events."""

    def __init__(self, result):
        self.result = result
        self.scenario = result.scenario
        self.tool = self.scenario["tool"]
        self.history = History(result.history["changes"], result.history["writes"])
        self.requests = result.history["requests"]
        self.first_request_at = result.history["firstRequestAt"]
        self.port_down = result.history["portDown"]
        self.variables = self.scenario["tags"] + self.scenario["once"]
        self.tables, self.writes, self.summary, self.events = [], [], None, []
        self.notes = {}  # figures worth seeing beside a verdict
        for when, text in result.lines:
            self.take_line(when, text)

    def take_line(self, when, text):
        if text.startswith("{"):
            self.take_object(when, json.loads(text))
            return
        sent = TRACE_TX.match(text)
        received = TRACE_RX.match(text)
        standing = STANDING.match(text)
        port = PORT.match(text)
        if sent:
            self.events.append(("tx", when, bytes.fromhex(sent.group(1))))
        elif received:
            self.events.append(("rx", when, int(received.group(1))))
        elif standing:
            self.events.append(("standing", when, int(standing.group(1)), standing.group(2)))
        elif port:
            self.events.append(("port", when, port.group(1)))

    def take_object(self, when, value):
        if "values" in value:
            self.tables.append((when, value))
            self.events.append(("table", when, value))
        elif "write" in value:
            self.writes.append(value["write"])
        elif "summary" in value:
            self.summary = value["summary"]

    # --- timing of this run ------------------------------------------------------------

    def timeout_s(self):
        return self.tool["timeoutMs"] / 1000

    def quiet_s(self):
        return self.tool["quietMs"] / 1000

    def longest_way_back_s(self):
        """The longest a reply takes from its station's answer to the tool: a late reply,
        which may answer its own request's retry."""
        line = self.scenario["line"]
        slowest = max(high for _, high in line["delaysS"].values())
        return max(line["lateS"][1], slowest) + CLOCK_SLACK_S

    def owed_reply_horizon_s(self):
        longest_ms = (self.summary or {}).get("lateReplies", {}).get("longestMs", 0)
        low = DEFAULT_TIMEOUTS * self.timeout_s() + self.quiet_s()
        high = MOST_TIMEOUTS * self.timeout_s() + self.quiet_s()
        return min(max(LEARNED_MARGIN * longest_ms / 1000, low), high)

    def polling_ended_at(self):
        return min(t for t in (self.result.signalled, self.result.ended) if t is not None)

    def phase_at(self, name):
        """When the faults begin ("faults") or end ("clean"), on the monotonic clock."""
        phases = self.scenario["line"]["phases"]
        offset = phases["prologueS"] + (phases["faultsS"] if name == "clean" else 0)
        return self.first_request_at + offset

    def dead_spans(self, station):
        return [(self.first_request_at + start, self.first_request_at + end)
                for s, start, end in self.scenario["line"]["dead"] if s == station]

    def port_away_spans(self):
        """When no request can be sent: the port away, and until the tool's next reopen."""
        reopen_s = self.tool["reopenMs"] / 1000
        return [(lost, (back or self.result.ended) + reopen_s + LOAD_SLACK_S)
                for lost, back in self.port_down]


def overlaps(span, spans):
    return any(span[0] < end and start < span[1] for start, end in spans)


def ranges_text(numbers):
    """"3-7, 12" for [3, 4, 5, 6, 7, 12]."""
    parts, numbers = [], sorted(numbers)
    while numbers:
        first = last = numbers.pop(0)
        while numbers and numbers[0] == last + 1:
            last = numbers.pop(0)
        parts.append(str(first) if first == last else f"{first}-{last}")
    return ", ".join(parts)


# --- a. confirmed values --------------------------------------------------------------

def check_confirmed_values(run):
    """Every value shown confirmed was held by its station in its window (see value_window),
    and a polled one is within the tool's age bound."""
    violations = []
    previous_read = run.result.started
    for number, (read_at, table) in enumerate(run.tables):
        for index, row in enumerate(table["values"]):
            if row["values"] is None:
                continue
            polled = index < len(run.scenario["tags"])
            window = value_window(run, row, read_at, previous_read if polled else
                                  run.result.started)
            violations += check_row(run, number, row, run.variables[index], window)
            if polled:
                violations += check_age(run, number, row)
        previous_read = read_at
    return violations


def check_age(run, number, row):
    """A polled value shown confirmed has its age, no older than the summary's bound (the
    tool reads its clock twice for a row: a millisecond or two may pass between)."""
    bound = (run.summary or {}).get("maxAgeMs")
    if "ageMs" not in row or bound is None:
        return []  # a tool that does not age its values
    if row["ageMs"] is not None and row["ageMs"] <= bound + AGE_CLOCK_SLACK_MS:
        return []
    return [Violation("a", f"table {number} (cycle {row_cycle(run, number)}) row {row['name']} "
                           f"station {row['station']} shown confirmed with ageMs "
                           f"{row['ageMs']}, bound maxAgeMs {bound}")]


def value_window(run, row, read_at, since):
    """From when to when the station may have held the values of a row read at read_at: from
    its oldest answer (ageMs ago; others, of a variable read in pieces or partly written, are
    younger), less the way back of a reply, until the table."""
    if row.get("ageMs") is not None:
        since = read_at - row["ageMs"] / 1000
    return (since - READ_SKEW_S - run.longest_way_back_s(), read_at + CLOCK_SLACK_S)


def check_row(run, number, row, variable, window):
    """The first value of a row its station did not hold in the window, as a violation."""
    station = variable["station"]
    for position, (value, cells) in enumerate(zip(row["values"], cells_of(
            variable["area"], variable["address"], variable["bit"], variable["length"]))):
        parts = [value >> 16, value & 0xFFFF] if len(cells) == 2 else [value]
        for part, (table, address, bit) in zip(parts, cells):
            held = run.history.held_between(cell_key(station, table, address), *window)
            shown = {v >> bit & 1 for v in held} if bit is not None else held
            if part not in shown:
                return [Violation("a", (
                    f"table {number} (cycle {row_cycle(run, number)}) row "
                    f"{variable_text(variable, True)} value {position} shows {value}; "
                    f"station {station} {table} {address}"
                    f"{'' if bit is None else f' bit {bit}'} held {sorted(held)} from "
                    f"{window[0] - run.first_request_at:.3f} to "
                    f"{window[1] - run.first_request_at:.3f} s after the first request "
                    f"(ageMs {row.get('ageMs')})"))]
    return []


def row_cycle(run, number):
    return run.tables[number][1].get("cycle")


def check_set_aside_values(run):
    """A station set aside has its values shown not confirmed until it answers again."""
    aside, violations = set(), []
    polled = len(run.scenario["tags"])
    for event in run.events:
        if event[0] == "standing":
            (aside.add if event[3] == "set aside" else aside.discard)(event[2])
        elif event[0] == "table":
            shown = [row["name"] for row in event[2]["values"][:polled]
                     if row["station"] in aside and row["values"] is not None]
            if shown:
                violations.append(Violation("a", (
                    f"cycle {event[2]['cycle']}: stations {sorted(aside)} set aside, yet "
                    f"rows {shown} shown confirmed ({event[1] - run.first_request_at:.3f} s "
                    f"after the first request)")))
    return violations


# --- b. writes ------------------------------------------------------------------------

def check_writes(run):
    """Every request of a write reported done was carried out, none reported failed was."""
    planned = run.scenario["writes"]
    texts = [write_text(w, run.scenario["multiStation"]) for w in planned]
    if [w["text"] for w in run.writes] != texts:
        return [Violation("b", f"writes reported {[w['text'] for w in run.writes]}, "
                               f"asked {texts}")]
    violations = []
    for write, reported in zip(planned, run.writes):
        for table, address, bit, value, outcome in request_outcomes(write, reported):
            place = f"{table} {address}{'' if bit is None else f'.{bit}'} = {value}"
            applied = run.history.applied_writes_of(write["station"], table, address)
            if outcome == "done" and not left_at(applied, bit, value):
                violations.append(Violation("b", (
                    f"write {reported['text']} reported done, but station {write['station']} "
                    f"never carried out {place}")))
            landed = left_at(applied, bit, value) if bit is None else set_to(applied, bit, value)
            if outcome == "failed" and landed:
                violations.append(Violation("b", (
                    f"write {reported['text']} reported failed, but station "
                    f"{write['station']} carried out {place} at "
                    f"{landed[0] - run.first_request_at:.3f} s after the first request")))
    return violations


def left_at(applied, bit, value):
    """Times of the writes carried out that left a cell (or one bit of it) at value."""
    return [when for when, _, after in applied
            if (after if bit is None else after >> bit & 1) == value]


def set_to(applied, bit, value):
    """Times of the writes that changed a bit to value. A bit is written with its whole
    register, which every request for another bit of it writes too: only a write that set
    the bit shows that the request for that bit landed."""
    return [when for when, before, after in applied
            if before >> bit & 1 != value and after >> bit & 1 == value]


def request_outcomes(write, reported):
    """(table, address, bit, value, outcome) of every cell: the outcome of the request that
    wrote it, "done" unless the write lists the request as not done."""
    outcomes = {}
    for request in reported["notDone"]:
        for offset in range(request["count"]):
            outcomes[request["address"] + offset] = request["outcome"]
    cells = []
    for table, address, bit, value in write_cells(write):
        encoded = address * 16 + bit if bit is not None else address
        cells.append((table, address, bit, value, outcomes.get(encoded, "done")))
    return cells


# --- c. every address read in every pass; the clean rate comes back ------------------

def check_passes(run):
    """Between two tables, every planned read of a station that answers is sent, and none is
    answered twice: the list's rotation is not started again within a pass. Variables that
    overlap put the same request on the list more than once (kept as designed): each of its
    places is answered once. In a pass in which
    a station is set aside the tool hands the driver a new list, and a group of reads caught in
    the middle is read again from its start: there a read may be answered twice, never more.
    The first pass, which follows the writes and one-shot reads, is not held to these rules."""
    if run.tool["onceTable"]:
        return []
    violations = []
    required = required_reads(run)
    standing = {}
    window_start, sent, answered, port_event = run.result.started, [], collections.Counter(), False
    set_aside = False
    for event in run.events:
        kind, when = event[0], event[1]
        if kind == "tx":
            sent.append(event[2])
        elif kind == "rx" and event[2] == ACCEPTED and sent:
            answered[read_request_of(sent[-1])] += 1
        elif kind == "standing":
            standing.setdefault(event[2], []).append((when, event[3]))
            set_aside = set_aside or event[3] == "set aside"
        elif kind == "port":
            port_event = True
        elif kind == "table" and not event[2]["final"]:
            if not port_event:
                cycle = event[2]["cycle"]
                violations += check_pass(run, cycle, (window_start, when), sent, required,
                                         standing)
                if window_start != run.result.started:
                    violations += check_answered_once(run, cycle, when, answered,
                                                      2 if set_aside else 1)
            window_start, sent, answered, port_event = when, [], collections.Counter(), False
            set_aside = False
    return violations


def check_answered_once(run, cycle, when, answered, allowed):
    planned = collections.Counter((r["station"], r["function"], r["address"], r["quantity"])
                                  for r in run.result.plan)
    twice = {request: count for request, count in answered.items()
             if request in planned and count > allowed * planned[request]}
    if not twice:
        return []
    shown = ", ".join(f"station {r[0]} function {r[1]} address {r[2]} quantity {r[3]}: {n}"
                      for r, n in sorted(twice.items())[:3])
    return [Violation("c", (
        f"pass {cycle}: {len(twice)} of {len(planned)} reads answered more than {allowed} "
        f"time{'s' if allowed > 1 else ''} ({shown}"
        f"{', ...' if len(twice) > 3 else ''}), {when - run.first_request_at:.3f} s after the "
        f"first request"))]


def required_reads(run):
    """{station: {(function, address)}} of every polled address that the driver's read list
    asks for. The driver merges coils and inputs so that a variable lying inside an earlier
    one may shrink their request (kept as designed): what falls outside is never read, and
    the tool shows it not confirmed."""
    planned = set()
    for request in run.result.plan:
        planned.update((request["station"], request["function"], address) for address in range(
            request["address"], request["address"] + request["quantity"]))
    required = {}
    for tag in run.scenario["tags"]:
        reads = required.setdefault(tag["station"], set())
        for cells in cells_of(tag["area"], tag["address"], tag["bit"], tag["length"]):
            reads.update((READ_FUNCTIONS[table], address) for table, address, _ in cells
                         if (tag["station"], READ_FUNCTIONS[table], address) in planned)
    return required


def set_aside_during(standing, station, span):
    """Whether the tool had the station set aside at any moment of span."""
    aside = False
    for when, state in standing.get(station, []):
        if when >= span[1]:
            break
        if when > span[0] and aside:
            return True
        aside = state == "set aside"
        if when > span[0] and aside:
            return True
    return aside


def check_pass(run, cycle, span, frames, required, standing):
    violations = []
    for station, reads in required.items():
        if (station in run.scenario["line"]["silent"]
                or overlaps(span, run.dead_spans(station))
                or set_aside_during(standing, station, span)):
            continue
        asked = set()
        for frame in frames:
            if frame[0] == station and 1 <= frame[1] <= 4:
                first, quantity = frame[2] << 8 | frame[3], frame[4] << 8 | frame[5]
                asked.update((frame[1], a) for a in range(first, first + quantity))
        missing = reads - asked
        if missing:
            by_function = {f: [a for g, a in missing if g == f] for f, _ in missing}
            violations.append(Violation("c", (
                f"pass {cycle}: station {station} answers but was not asked for " + "; ".join(
                    f"function {f} addresses {ranges_text(a)}"
                    for f, a in sorted(by_function.items())) +
                f" ({len(frames)} requests in the pass, "
                f"{span[1] - run.first_request_at:.3f} s after the first request)")))
    return violations


def check_rotation(run):
    """No planned read waits for more than two turns of the read list, every request with
    all its attempts, while its station is on the list: rebuilding the list (a station set
    aside or probed) must not send its head again and again and leave its tail waiting."""
    plan = [(r["station"], r["function"], r["address"], r["quantity"]) for r in run.result.plan]
    limit = 2 * len(plan) * (run.tool["retries"] + 1)
    waiting = dict.fromkeys(plan, 0)
    aside, violations, starved = set(), [], set()
    for event in run.events:
        if event[0] == "standing":
            (aside.add if event[3] == "set aside" else aside.discard)(event[2])
            waiting.update((p, 0) for p in plan if p[0] == event[2])
        elif event[0] == "port":
            waiting = dict.fromkeys(plan, 0)
        elif event[0] == "tx" and read_request_of(event[2]) in waiting:
            waiting[read_request_of(event[2])] = 0
            for request in plan:
                if request[0] in aside or request in starved:
                    continue
                waiting[request] += 1
                if waiting[request] > limit:
                    starved.add(request)
                    violations.append(Violation("c", (
                        f"station {request[0]} function {request[1]} address {request[2]} "
                        f"quantity {request[3]} not sent during {limit} read attempts of "
                        f"a list of {len(plan)} requests ({event[1] - run.first_request_at:.3f}"
                        f" s after the first request)")))
    return violations


def read_request_of(frame):
    """(station, function, address, quantity) of a read request frame."""
    if len(frame) < 7 or not 1 <= frame[1] <= 4:
        return None
    return (frame[0], frame[1], frame[2] << 8 | frame[3], frame[4] << 8 | frame[5])


def check_recovery(run):
    """Answered transactions in the clean end take no longer than 1/0.9 of their time on the
    clean line at the start: each its station's reply time on the line, plus the time the
    tool took at the start, station by station, to send the next request."""
    costs = transaction_times(run)
    reference = reference_turnarounds(run, costs)
    settled = settled_at(run, costs)
    end = run.polling_ended_at() - CLOCK_SLACK_S
    if settled is None or end - settled < MEASURED_AT_LEAST_S:
        return []
    measured = [(station, reply_s, took) for when, station, reply_s, took in costs
                if settled <= when < end and station in reference]
    if not measured:
        return []
    expected = sum(reply_s + reference[station] for station, reply_s, _ in measured)
    actual = sum(took for _, _, took in measured)
    run.notes["recovered"] = round(expected / actual, 2)
    if expected >= RECOVERED_SHARE * actual:
        return []
    return [Violation("c-rate", (
        f"{len(measured)} answered transactions from "
        f"{settled - run.first_request_at:.2f} to {end - run.first_request_at:.2f} s took "
        f"{actual:.3f} s, {expected:.3f} s at the clean start's pace (ratio "
        f"{expected / actual:.2f}, at least {RECOVERED_SHARE}); the tool's time from a reply "
        f"to the next request at the start: " + ", ".join(
            f"station {s} {1000 * c:.2f} ms" for s, c in sorted(reference.items())) +
        f"; holds {run.summary.get('lateReplies', {}).get('holds')}"))]


def transaction_times(run):
    """(time, station, seconds until its reply went out, seconds until the next request) of
    every answered request."""
    times = []
    for request, following in zip(run.requests, run.requests[1:]):
        if request["fate"] == "answered" and request.get("repliedAt"):
            times.append((request["time"], request["station"],
                          request["repliedAt"] - request["time"],
                          following["time"] - request["time"]))
    return times


def reference_turnarounds(run, costs):
    """Median time from a reply to the next request, station by station, on the clean line at
    the start (a retry answered by its first attempt's reply comes before the reply: the
    median leaves it out)."""
    start, end = run.first_request_at, run.phase_at("faults")
    by_station = {}
    for when, station, reply_s, took in costs:
        if start <= when < end:
            by_station.setdefault(station, []).append(took - reply_s)
    return {station: statistics.median(times) for station, times in by_station.items()}


def settled_at(run, costs):
    """When the clean end has given up every owed reply, reopened the port and had the time
    of a few passes at the clean start's pace (counted in time, not in the tool's passes,
    which a slow tool would make late); None without a clean start to measure."""
    start, end = run.first_request_at, run.phase_at("faults")
    took = [took for when, _, _, took in costs if start <= when < end]
    if not took:
        return None
    pass_s = len(run.result.plan) * statistics.median(took)
    ready = run.phase_at("clean") + run.owed_reply_horizon_s() + run.tool["reopenMs"] / 1000
    return ready + PASSES_TO_RECOVER * pass_s


# --- d. the end of a run --------------------------------------------------------------

def check_end(run):
    result, violations = run.result, []
    if result.hung:
        return [Violation("d", f"did not end within {run.tool['durationS']} s + grace; killed")]
    if result.status not in (0, 1):
        violations.append(Violation("d", f"exit status {result.status}"))
    if not run.tables or run.summary is None or len(run.writes) != len(run.scenario["writes"]):
        violations.append(Violation("d", (
            f"output incomplete: {len(run.tables)} tables, {len(run.writes)} of "
            f"{len(run.scenario['writes'])} writes, summary {run.summary is not None}")))
    if run.summary is not None and result.status in (0, 1):
        violations += check_status(run)
    if result.signalled is not None:
        violations += check_stop(run)
    if result.peak_kb > PEAK_MEMORY_KB:
        violations.append(Violation("d", f"peak resident memory {result.peak_kb} kB, more "
                                         f"than {PEAK_MEMORY_KB} kB"))
    return violations


def check_status(run):
    abandoned = sum(run.summary.get("abandoned", {}).values())
    not_good = [w["text"] for w in run.writes if w["outcome"] not in ("done", "sent")]
    expected = 1 if abandoned or not_good else 0
    if run.result.status == expected:
        return []
    return [Violation("d", f"exit status {run.result.status} with {abandoned} requests "
                           f"abandoned and writes not done: {not_good}")]


def check_stop(run):
    violations = []
    took = run.result.ended - run.result.signalled
    if took > STOP_WITHIN_S:
        violations.append(Violation("d-stop", f"ended {took:.3f} s after SIGTERM"))
    if run.summary is not None and not run.summary.get("interrupted"):
        violations.append(Violation("d", "stopped by SIGTERM, summary says not interrupted"))
    return violations


# --- e. the line never idle -----------------------------------------------------------

def idle_bound_s(run):
    timeout_s, quiet_s = run.timeout_s(), run.quiet_s()
    waited = max(timeout_s, run.tool["charTimeoutMs"] / 1000 + 0.6 * timeout_s,
                 run.scenario["line"]["lateS"][1]) + quiet_s + 0.1  # noise lasts 0.1 s
    return max(waited, run.owed_reply_horizon_s()) + LOAD_SLACK_S


def check_idle_line(run):
    bound = idle_bound_s(run)
    away = run.port_away_spans()
    end = run.polling_ended_at()
    times = [r["time"] for r in run.requests if r["time"] < end]
    gaps = [(a, b) for a, b in zip(times, times[1:]) if b - a > bound and not overlaps(
        (a, b), away)]
    # The last request may wait for the end of the run too: its gap runs to the end.
    if times and end - times[-1] > bound + run.timeout_s() and not overlaps(
            (times[-1], end), away):
        gaps.append((times[-1], end))
    return [Violation("e", (
        f"no request for {b - a:.3f} s (bound {bound:.3f} s) from "
        f"{a - run.first_request_at:.3f} s after the first request; last request "
        f"{last_request_text(run, a)}"))
        for a, b in gaps]


def last_request_text(run, when):
    request = next(r for r in run.requests if r["time"] == when)
    return f"{request['frame']} ({request['fate']})"


CHECKS = (check_confirmed_values, check_set_aside_values, check_writes, check_passes,
          check_rotation, check_recovery, check_end,
          check_idle_line)


SHOWN_PER_CHECK = 3


def unframable_writes(scenario):
    """Writes the tool must refuse before it starts: a 32-bit value needs two registers of a
    frame."""
    if scenario["tool"]["maxFrameWords"] >= 2:
        return []
    return [write_text(w, scenario["multiStation"]) for w in scenario["writes"]
            if w["area"] == "4x_double"]


def check_refusal(result, texts):
    """A run the tool had to refuse: status 2, a message naming a write, nothing sent."""
    said = "\n".join(line for _, line in result.lines)
    if (result.status == 2 and result.history.get("firstRequestAt") is None
            and any(f"--write {text}:" in said for text in texts)):
        return []
    return [Violation("d", (f"--max-frame-words 1 with 32-bit writes {texts}: exit status "
                            f"{result.status}, peak memory {result.peak_kb} kB, "
                            f"last output {said[-200:]!r}"))]


def check_run(result):
    """The violations of one run (the first few of each check, and how many more), and
    figures worth seeing beside them."""
    if unframable_writes(result.scenario):
        return check_refusal(result, unframable_writes(result.scenario)), {}
    if result.history.get("firstRequestAt") is None:
        last = result.lines[-1][1] if result.lines else "nothing"
        return [Violation("d", f"the tool sent no request at all: exit status {result.status}, "
                               f"peak memory {result.peak_kb} kB, last output {last[:200]!r}")], {}
    run = Run(result)
    violations = []
    for check in CHECKS:
        found = check(run)
        violations += found[:SHOWN_PER_CHECK]
        if len(found) > SHOWN_PER_CHECK:
            violations.append(Violation(found[0].invariant,
                                        f"{len(found) - SHOWN_PER_CHECK} more like these"))
    return violations, run.notes
