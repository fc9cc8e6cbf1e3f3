// SPDX-License-Identifier: MIT
// Counting and queueing the host's one-shot reads.
#include "once_reads.h"

#include "tool_error.h"

namespace {

// Bytes of coils or inputs, registers otherwise, as the driver rounds a one-shot read.
int OnceReadUnits(const Variable &variable) {
    const QString &area = variable.area;
    if (area == QLatin1String("0x") || area == QLatin1String("1x")) {
        return (variable.address % 8 + variable.length) / 8 + 1;
    }
    if (area.endsWith(QLatin1String("_bit"))) {
        return (variable.address % 16 + variable.length) / 16 + 1;
    }
    return variable.length;
}

}  // namespace

int OnceReadEntries(const Variable &variable, int maxFrameWords) {
    return (OnceReadUnits(variable) + maxFrameWords - 1) / maxFrameWords;
}

void CheckOnceReadsFit(const QList<Variable> &onceReads, int maxFrameWords) {
    qint64 entries = 0;
    for (const Variable &variable : onceReads) entries += OnceReadEntries(variable, maxFrameWords);
    if (entries <= kOnceQueueCapacity) return;
    throw ToolError(QStringLiteral("the --once reads take %1 requests of at most %2 registers "
                                   "(or bytes of bits), and the driver queues at most %3: "
                                   "raise --max-frame-words or read less at once")
                        .arg(entries)
                        .arg(maxFrameWords)
                        .arg(kOnceQueueCapacity));
}

std::set<Owner> QueueOnceReads(const DriverApi &api, const QList<Variable> &onceReads,
                               int maxFrameWords) {
    std::set<Owner> owners;
    int queued = 0;
    for (int i = 0; i < onceReads.size(); ++i) {
        RW_VAR request;
        request.ownerType = 0;
        request.ownerId = i + 1;
        request.area = onceReads[i].area;
        request.address = onceReads[i].address;
        request.count = onceReads[i].length;
        request.station = onceReads[i].station;
        queued += OnceReadEntries(onceReads[i], maxFrameWords);
        if (api.addListOnceReadVar(&request) != queued) {
            throw ToolError(QStringLiteral("the driver did not queue all of --once '%1'")
                                .arg(onceReads[i].name));
        }
        owners.insert({0, i + 1});
    }
    return owners;
}
