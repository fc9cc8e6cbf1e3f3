// SPDX-License-Identifier: MIT
#include "run_stats.h"

#include <QString>
#include <algorithm>

void RunStats::record(int result, const Exchange &exchange) {
    ++transactions;
    if (!exchange.reply.isEmpty() && exchange.replyKind == FrameKind::Exception) {
        ++exceptionReplies;
    }
    recordLine(exchange);
    const qint64 lineNanoseconds = exchange.lineNanoseconds;
    if (result == 1) {
        ++accepted;
    } else if (result == 0) {
        ++retried;
    } else {
        ++abandoned[result];
    }
    lineNanosecondsTotal += lineNanoseconds;
    lineNanosecondsMax = std::max(lineNanosecondsMax, lineNanoseconds);
}

void RunStats::recordLine(const Exchange &exchange) {
    for (const StrayFrame &stray : exchange.strays) {
        if (stray.kind == FrameKind::Echo) {
            ++echoesRemoved;
        } else {
            ++strayFrames[static_cast<int>(stray.kind)];
        }
    }
    noiseCharacters += exchange.noiseCharacters;
}

qint64 RunStats::strayFramesTotal() const {
    qint64 total = 0;
    for (qint64 count : strayFrames) total += count;
    return total;
}

qint64 RunStats::abandonedTotal() const {
    qint64 total = 0;
    for (qint64 count : abandoned) total += count;
    return total;
}

QString ResultName(int result) {
    if (result == 1) return QStringLiteral("accepted");
    if (result == 0) return QStringLiteral("rejected, sent again");
    if (result >= 11 && result <= 22) return QStringLiteral("invalid content");
    if (result >= 41 && result <= 52) return QStringLiteral("no reply");
    if (result >= 71 && result <= 82) return QStringLiteral("wrong length");
    return QStringLiteral("unknown result");
}
