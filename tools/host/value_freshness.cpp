// SPDX-License-Identifier: MIT
#include "value_freshness.h"

#include <algorithm>

namespace {

constexpr int kAddressSpace = 65536;

// The table a function reads or writes, named by its read function: coils 1, inputs 2,
// holding registers 3, input registers 4.
int TableOfFunction(int function) {
    if (function == 5 || function == 15) return 1;
    if (function == 6 || function == 16) return 3;
    return function;
}

// The table and the wire span [first, end) of a variable.
struct Span {
    int table;
    int first;
    int end;
};

Span SpanOf(const Variable &variable) {
    const QString &area = variable.area;
    const int table = area == QLatin1String("0x")            ? 1
                      : area == QLatin1String("1x")          ? 2
                      : area.startsWith(QLatin1String("3x")) ? 4
                                                             : 3;
    if (area.endsWith(QLatin1String("_bit"))) {
        const int lastBit = variable.address + variable.length - 1;
        return {table, variable.address / 16, lastBit / 16 + 1};
    }
    return {table, variable.address, variable.address + variable.length};
}

}  // namespace

void ValueFreshness::note(const QByteArray &frame, const RW_VAR &request, int result) {
    const std::optional<RequestHead> head = ParseRequest(frame);
    // A retried frame changes nothing yet; the read half of a bit write only feeds its write.
    if (!head || result == 0 || request.bitWriteMark == -1) return;
    if (request.direction == 0) {
        mark(*head, result == 1);
        return;
    }
    // The driver puts a written value into its cache when it builds the frame, except for a
    // bit inside a register, whose cached register keeps the value read before the write.
    mark(*head, result == 1 && request.area != QLatin1String("4x_bit"));
}

void ValueFreshness::mark(const RequestHead &head, bool confirmed) {
    std::vector<bool> &flags = confirmed_[{head.station, TableOfFunction(head.function)}];
    if (flags.empty()) flags.resize(kAddressSpace, false);
    const int end = std::min(head.address + head.quantity, kAddressSpace);
    for (int address = head.address; address < end; ++address) flags[address] = confirmed;
}

bool ValueFreshness::confirmed(const Variable &variable) const {
    const Span span = SpanOf(variable);
    const auto flags = confirmed_.find({variable.station, span.table});
    if (flags == confirmed_.end() || span.end > kAddressSpace) return false;
    for (int address = span.first; address < span.end; ++address) {
        if (!flags->second[address]) return false;
    }
    return true;
}
