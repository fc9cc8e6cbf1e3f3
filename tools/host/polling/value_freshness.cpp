// SPDX-License-Identifier: MIT
#include "value_freshness.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr int kAddressSpace = 65536;
constexpr int kBroadcastStation = 0;

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

qint64 PassAgeBoundMs(int readRequests, int attempts, int replyTimeoutMs, int quietMs) {
    constexpr double kLeastBoundMs = 1000;
    // In floating point: a retry count in the millions must not overflow the product.
    const double passMs = static_cast<double>(readRequests) * attempts *
                          (static_cast<double>(replyTimeoutMs) + quietMs);
    const double boundMs = std::max(kLeastBoundMs, 2 * passMs);
    // Beyond some thirty thousand years a bound bounds nothing (and may not fit a qint64).
    constexpr double kLongestBoundMs = 1e15;
    return boundMs >= kLongestBoundMs ? ValueFreshness::kNoBound : static_cast<qint64>(boundMs);
}

ValueFreshness::ValueFreshness(bool multiStation, Clock clock)
    : multiStation_(multiStation), clock_(std::move(clock)) {
    if (!clock_) {
        clock_ = [] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                .count();
        };
    }
}

void ValueFreshness::handedOut(const QByteArray &frame, const RW_VAR &request) {
    const std::optional<RequestHead> head = ParseRequest(frame);
    if (!head || request.direction != 1) return;
    // The driver writes the value into its cache when it builds the frame, unless the link
    // had failed; a bit inside a register reaches the cache only through its read half.
    writeValuesCached_ = !linkFailed_ && request.area != QLatin1String("4x_bit");
    mark(*head, false);
    if (head->station == kBroadcastStation) markEveryStation(*head, false);
}

void ValueFreshness::note(const QByteArray &frame, const RW_VAR &request, int result) {
    const std::optional<RequestHead> head = ParseRequest(frame);
    if (result == 0) return;  // a retried frame changes nothing yet
    if (head && request.direction == 0) noteRead(*head, result == 1);
    // The write's values are confirmed only when they are what the cache holds.
    if (head && request.direction == 1) mark(*head, result == 1 && writeValuesCached_);
    linkFailed_ = result != 1;
}

// An answered read (the read half of a bit write too) stores the slave's values. In
// single-station mode a bit reply of N bytes also stores min(N, 2) more bytes after them,
// its LRC and its CR LF, into the coils or inputs that follow.
void ValueFreshness::noteRead(const RequestHead &head, bool accepted) {
    mark(head, accepted);
    const bool bitRead = head.function == 1 || head.function == 2;
    if (!accepted || !bitRead || multiStation_) return;
    const int dataBytes = (head.quantity + 7) / 8;
    RequestHead spill = head;
    spill.address = head.address - head.address % 8 + 8 * dataBytes;
    spill.quantity = 8 * std::min(dataBytes, 2);
    mark(spill, false);
}

// A broadcast reaches every slave, so the span is no longer confirmed at any station.
void ValueFreshness::markEveryStation(const RequestHead &head, bool confirmed) {
    const int table = TableOfFunction(head.function);
    for (auto &[key, times] : confirmedAt_) {
        if (key.second != table) continue;
        RequestHead atStation = head;
        atStation.station = key.first;
        mark(atStation, confirmed);
    }
}

void ValueFreshness::mark(const RequestHead &head, bool confirmed) {
    std::vector<qint64> &times = confirmedAt_[{head.station, TableOfFunction(head.function)}];
    const int end = std::min(head.address + head.quantity, kAddressSpace);
    if (end > static_cast<int>(times.size())) times.resize(end, kUnconfirmed);
    const qint64 when = confirmed ? clock_() : kUnconfirmed;
    for (int address = head.address; address < end; ++address) times[address] = when;
}

void ValueFreshness::forgetStation(int station) {
    for (auto it = confirmedAt_.begin(); it != confirmedAt_.end();) {
        it = it->first.first == station ? confirmedAt_.erase(it) : std::next(it);
    }
}

std::optional<qint64> ValueFreshness::ageMs(const Variable &variable) const {
    const Span span = SpanOf(variable);
    const auto times = confirmedAt_.find({variable.station, span.table});
    if (times == confirmedAt_.end() || span.end > static_cast<int>(times->second.size())) {
        return std::nullopt;
    }
    const auto first = times->second.begin() + span.first;
    const auto end = times->second.begin() + span.end;
    if (first == end || std::find(first, end, kUnconfirmed) != end) return std::nullopt;
    return clock_() - *std::min_element(first, end);
}

bool ValueFreshness::confirmed(const Variable &variable, bool polled) const {
    const std::optional<qint64> age = ageMs(variable);
    return age && (!polled || *age <= maxAgeMs_);
}
