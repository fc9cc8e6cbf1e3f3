// SPDX-License-Identifier: MIT
// Owed replies, the requests they could fool, and what the line shows about their lateness.
#include "late_replies.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>

#include "line_layer.h"

namespace {

// Data bytes of a read reply for the quantity asked.
int ReadReplyBytes(const RequestHead &head) {
    return head.function <= 2 ? (head.quantity + 7) / 8 : head.quantity * 2;
}

bool IsRead(int function) {
    return function >= 1 && function <= 4;
}

}  // namespace

bool AnswersLookAlike(const QByteArray &request, const QByteArray &other) {
    const std::optional<RequestHead> one = ParseRequest(request);
    const std::optional<RequestHead> two = ParseRequest(other);
    if (!one || !two || one->station != two->station || one->function != two->function) {
        return false;
    }
    if (IsRead(one->function)) return ReadReplyBytes(*one) == ReadReplyBytes(*two);
    if (one->function == 5 || one->function == 6) return request == other;
    return one->address == two->address && one->quantity == two->quantity;
}

qint64 CoveringTimeoutMs(qint64 lateMs) {
    return (lateMs / 10 + 1) * 10;
}

LateReplyGuard::LateReplyGuard(int replyTimeoutMs, int quietMs)
    : defaultHorizonMs_(static_cast<qint64>(kDefaultTimeouts) * replyTimeoutMs + quietMs),
      longestHorizonMs_(static_cast<qint64>(kMostTimeouts) * replyTimeoutMs + quietMs) {}

qint64 LateReplyGuard::horizonMs() const {
    const auto learned =
        static_cast<qint64>(std::ceil(kLearnedMargin * static_cast<double>(figures_.longestMs)));
    return std::clamp(learned, defaultHorizonMs_, longestHorizonMs_);
}

// The same request is not held back: its own late reply answers it as well as a new one.
qint64 LateReplyGuard::holdFor(const QByteArray &request, qint64 nowMs) const {
    qint64 hold = 0;
    for (const OwedReply &owed : owed_) {
        const qint64 left = owed.sentMs + horizonMs() - nowMs;
        if (!owed.settled && left > hold && owed.request != request &&
            AnswersLookAlike(owed.request, request)) {
            hold = left;
        }
    }
    return hold;
}

void LateReplyGuard::noteUnanswered(const QByteArray &request, qint64 sentMs) {
    owed_.push_back({request, sentMs});
    if (owed_.size() > kRemembered) owed_.pop_front();
}

void LateReplyGuard::noteAnswered(const QByteArray &request, qint64 sentMs, qint64 answeredMs) {
    for (OwedReply &owed : owed_) {
        if (owed.settled || owed.request != request) continue;
        if (answeredMs - owed.sentMs > horizonMs()) {
            owed.settled = true;
        } else {
            owed.sentMs = sentMs;
        }
    }
}

bool LateReplyGuard::noteSetAside(const QByteArray &frame, qint64 nowMs) {
    const auto answered = std::find_if(owed_.rbegin(), owed_.rend(), [&](const OwedReply &owed) {
        return nowMs - owed.sentMs <= longestHorizonMs_ &&
               IsHandedToDriver(ClassifyReply(owed.request, frame));
    });
    if (answered == owed_.rend()) return false;
    const qint64 lateMs = nowMs - answered->sentMs;
    owed_.erase(std::next(answered).base());
    ++figures_.lateReplies;
    figures_.latestMs = lateMs;
    figures_.longestMs = std::max(figures_.longestMs, lateMs);
    return true;
}

void LateReplyGuard::noteHold(qint64 heldMs) {
    ++figures_.holds;
    figures_.heldMs += heldMs;
}
