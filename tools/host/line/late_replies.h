// SPDX-License-Identifier: MIT
// Late replies: a request that went unanswered may still be answered after its time-out, and
// on Modbus ASCII, which has no transaction numbers, that late reply passes for the answer to
// any later request of the same shape (a read of as many registers of the same station and
// table, a write of the same span). The guard remembers the replies still owed, holds back
// only a request that such a reply could fool, and learns from the line how late replies come.
#ifndef MODBUS_ASCII_HOST_LATE_REPLIES_H
#define MODBUS_ASCII_HOST_LATE_REPLIES_H

#include <QByteArray>
#include <QtGlobal>
#include <deque>

// True when an answer to one request would pass the line layer as the answer to the other:
// the same station and function, and for reads the same byte count, for writes of several
// values the same address and quantity. Single writes are answered by their own characters.
bool AnswersLookAlike(const QByteArray &request, const QByteArray &other);

// What the line has shown about late replies.
struct LateReplyFigures {
    int lateReplies = 0;   // owed replies that came after their time-out
    qint64 latestMs = 0;   // from the end of sending to the end of the latest late reply
    qint64 longestMs = 0;  // the same for the latest of them all
    int holds = 0;         // requests held back until an owed reply came or was given up
    qint64 heldMs = 0;     // the time they waited
};

// The --timeout-ms that would have covered a reply that came lateMs after its request: the
// next multiple of 10 ms above it.
qint64 CoveringTimeoutMs(qint64 lateMs);

class LateReplyGuard {
public:
    // Before the line has shown a late reply, an owed reply is given up this many reply
    // time-outs (plus the quiet gap) after its request.
    static constexpr int kDefaultTimeouts = 3;
    // Once late replies have come, an owed reply is given up after half as long again as the
    // latest of them, but never later than this many reply time-outs: a reply later still is
    // counted, not waited for.
    static constexpr double kLearnedMargin = 1.5;
    static constexpr int kMostTimeouts = 10;

    LateReplyGuard(int replyTimeoutMs, int quietMs);

    // How long request must still wait (ms from nowMs) for owed replies that could fool it.
    qint64 holdFor(const QByteArray &request, qint64 nowMs) const;
    // request, sent at sentMs, got nothing (or only its echo) before its time-out.
    void noteUnanswered(const QByteArray &request, qint64 sentMs);
    // request, sent at sentMs, was answered at answeredMs. An owed reply of the same request
    // that could still come may have been that answer: it is owed from sentMs instead, since
    // then the answer to this send is still to come. One whose horizon had passed is settled.
    void noteAnswered(const QByteArray &request, qint64 sentMs, qint64 answeredMs);
    // A frame set aside at nowMs: when it answers an owed reply, that reply has come (true).
    // The latest request it could answer is taken for its own.
    bool noteSetAside(const QByteArray &frame, qint64 nowMs);
    // A request waited heldMs before it was sent.
    void noteHold(qint64 heldMs);

    // How long after its request an owed reply is given up.
    qint64 horizonMs() const;
    const LateReplyFigures &figures() const { return figures_; }

private:
    struct OwedReply {
        QByteArray request;
        qint64 sentMs;
        bool settled = false;  // can no longer come; kept only to learn from it if it does
    };
    // Owed replies given up are remembered a while longer, to learn from one that still comes.
    static constexpr size_t kRemembered = 256;

    qint64 defaultHorizonMs_;
    qint64 longestHorizonMs_;
    std::deque<OwedReply> owed_;  // oldest first
    LateReplyFigures figures_;
};

#endif  // MODBUS_ASCII_HOST_LATE_REPLIES_H
