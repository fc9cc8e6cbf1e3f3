# SPDX-License-Identifier: MIT
"""The stations behind the chaos line: Modbus ASCII slaves whose values change while they are
polled, and which remember everything that happened to them.

A station answers functions 1 to 6, 15 and 16 from its own four tables (coils "co", discrete
inputs "di", input registers "ir", holding registers "hr"; an address never set holds 0).
It refuses, with exception 4 and without carrying it out, any write that touches one of its
refused cells.

The history is what the checks read after a run: every value each cell held and from when
(monotonic seconds, the clock of every process on this machine), and every write a station
was sent, with whether it carried it out.
"""
import bisect

READ_TABLES = {1: "co", 2: "di", 3: "hr", 4: "ir"}
ILLEGAL_DATA_VALUE = 3
SLAVE_DEVICE_FAILURE = 4
# Modbus limits of one request: bits of functions 1, 2 and 15, registers of 3, 4 and 16.
MOST_BITS = 2000
MOST_READ_REGISTERS = 125
MOST_WRITE_REGISTERS = 123
COIL_ON = 0xFF00
# The time of a cell's first value: before anything in the run.
FROM_THE_START = 0.0


def cell_key(station, table, address):
    return f"{station}:{table}:{address}"


def word(data, index):
    return data[index] << 8 | data[index + 1]


def pack_bits(bits):
    """Bits as the bytes of a read reply: the first bit in the lowest bit of the first byte."""
    return [sum(bit << k for k, bit in enumerate(bits[first:first + 8]))
            for first in range(0, len(bits), 8)]


def unpack_bits(data, count):
    return [data[k // 8] >> (k % 8) & 1 for k in range(count)]


class History:
    """Values held and writes sent, as the stations saw them."""

    def __init__(self, changes=None, writes=None):
        self.changes = changes if changes is not None else {}  # key -> [[since, value], ...]
        self.writes = writes if writes is not None else []

    def set_initial(self, key, value):
        self.changes[key] = [[FROM_THE_START, value]]

    def record_value(self, key, value, since):
        self.changes.setdefault(key, [[FROM_THE_START, 0]]).append([since, value])

    def record_write(self, when, station, table, address, values, before, applied):
        """A write a station was sent: the values it carries, the values the cells held
        before it, and whether the station carried it out."""
        self.writes.append({"time": when, "station": station, "table": table,
                            "address": address, "values": values, "before": before,
                            "applied": applied})

    def held_between(self, key, earliest, latest):
        """Every value the cell held at some moment from earliest to latest."""
        changes = self.changes.get(key, [[FROM_THE_START, 0]])
        times = [since for since, _ in changes]
        first = max(0, bisect.bisect_right(times, earliest) - 1)
        last = bisect.bisect_right(times, latest)
        return {value for _, value in changes[first:max(last, first + 1)]}

    def applied_writes_of(self, station, table, address):
        """(time, value before, value written) of every write carried out on one cell."""
        return [(w["time"], w["before"][address - w["address"]],
                 w["values"][address - w["address"]]) for w in self.writes
                if w["applied"] and w["station"] == station and w["table"] == table
                and w["address"] <= address < w["address"] + len(w["values"])]

    def as_json(self):
        return {"changes": self.changes, "writes": self.writes}


class Station:
    """One slave: its tables, the cells whose writes it refuses, and the shared history."""

    def __init__(self, number, initial, refused, history, clock):
        self.number = number
        self.tables = {table: {} for table in ("co", "di", "ir", "hr")}
        self.refused = {(table, address) for table, address in refused}
        self.history = history
        self.clock = clock
        for table, values in initial.items():
            for address, value in values.items():
                self.tables[table][address] = value
                history.set_initial(cell_key(number, table, address), value)

    def value(self, table, address):
        return self.tables[table].get(address, 0)

    def change(self, table, address, value):
        """A change the station makes by itself (a counter, a process value)."""
        if self.value(table, address) != value:
            self.tables[table][address] = value
            self.history.record_value(cell_key(self.number, table, address), value,
                                      self.clock())

    def answer(self, request):
        """The reply to a request (its binary bytes without the LRC), as binary bytes; writes
        are carried out (or refused) at once."""
        function = request[1]
        if function in READ_TABLES:
            return self.read(request)
        handler = {5: self.write_coil, 6: self.write_register, 15: self.write_coils,
                   16: self.write_registers}.get(function)
        return handler(request) if handler else self.exception(function, ILLEGAL_DATA_VALUE)

    def exception(self, function, code):
        return bytes([self.number, function | 0x80, code])

    def read(self, request):
        function, address, quantity = request[1], word(request, 2), word(request, 4)
        table = READ_TABLES[function]
        limit = MOST_BITS if function <= 2 else MOST_READ_REGISTERS
        if not 1 <= quantity <= limit or len(request) != 6:
            return self.exception(function, ILLEGAL_DATA_VALUE)
        values = [self.value(table, address + i) for i in range(quantity)]
        data = pack_bits(values) if function <= 2 else [
            b for v in values for b in (v >> 8, v & 0xFF)]
        return bytes([self.number, function, len(data)] + data)

    def carry_out(self, function, table, address, values, acknowledgement):
        """Writes values from address, or refuses them all; the reply either way."""
        applied = not any((table, address + i) in self.refused for i in range(len(values)))
        before = [self.value(table, address + i) for i in range(len(values))]
        self.history.record_write(self.clock(), self.number, table, address, values, before,
                                  applied)
        if not applied:
            return self.exception(function, SLAVE_DEVICE_FAILURE)
        for i, value in enumerate(values):
            self.change(table, address + i, value)
        return acknowledgement

    def write_coil(self, request):
        setting = word(request, 4)
        if setting not in (0, COIL_ON) or len(request) != 6:
            return self.exception(5, ILLEGAL_DATA_VALUE)
        return self.carry_out(5, "co", word(request, 2), [1 if setting else 0], request)

    def write_register(self, request):
        if len(request) != 6:
            return self.exception(6, ILLEGAL_DATA_VALUE)
        return self.carry_out(6, "hr", word(request, 2), [word(request, 4)], request)

    def write_coils(self, request):
        quantity = word(request, 4)
        if not 1 <= quantity <= MOST_BITS or len(request) != 7 + (quantity + 7) // 8:
            return self.exception(15, ILLEGAL_DATA_VALUE)
        bits = unpack_bits(request[7:], quantity)
        return self.carry_out(15, "co", word(request, 2), bits, request[:6])

    def write_registers(self, request):
        quantity = word(request, 4)
        if not 1 <= quantity <= MOST_WRITE_REGISTERS or len(request) != 7 + 2 * quantity:
            return self.exception(16, ILLEGAL_DATA_VALUE)
        values = [word(request, 7 + 2 * i) for i in range(quantity)]
        return self.carry_out(16, "hr", word(request, 2), values, request[:6])
