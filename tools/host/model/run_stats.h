// SPDX-License-Identifier: MIT
// What the host counts while it polls: transactions, their outcomes and their timing, and the
// completions the driver reports through its callback.
#ifndef MODBUS_ASCII_HOST_RUN_STATS_H
#define MODBUS_ASCII_HOST_RUN_STATS_H

#include <QMap>
#include <QtGlobal>
#include <array>
#include <vector>

#include "line_health.h"
#include "line_layer.h"
#include "serial_link.h"

// One call of the completion callback.
struct Completion {
    int deviceId = 0;
    int ownerType = 0;
    int ownerId = 0;
    int status = 0;  // 1 done, 2 abandoned after its retries
};

// Counters are 64-bit, so that a run of months at full speed cannot overflow them.
struct RunStats {
    qint64 transactions = 0;      // frames sent and answered (or timed out) through DataCom
    qint64 accepted = 0;          // DataCom returned 1
    qint64 retried = 0;           // DataCom returned 0: the frame is sent again
    QMap<int, qint64> abandoned;  // DataCom's rejection code -> requests abandoned with it
    qint64 lineNanosecondsTotal = 0;
    qint64 lineNanosecondsMax = 0;
    qint64 driverCpuNanoseconds = 0;  // inside ComCommunication and DataCom
    qint64 passes = 0;                // full passes of the cyclic read list
    qint64 driverCycleMarks = 0;      // times a DataCom set ComInfo's cycleDone word
    bool interrupted = false;
    std::vector<Completion> completions;  // one per write request and one-shot read at most
    qint64 exceptionReplies = 0;  // exception replies handed to the driver, which rejects them
    std::array<qint64, kFrameKindCount> strayFrames{};  // frames set aside, by kind
    qint64 noiseCharacters = 0;
    qint64 echoesRemoved = 0;  // the adapter's echoes of the requests, not counted as stray
    EchoMode echoMode = EchoMode::Auto;
    EchoFinding echoFinding = EchoFinding::Unknown;
    LateReplyFigures lateReplies;
    qint64 portLosses = 0;  // times the port (or the connection to a device server) went away
    qint64 maxAgeMs = 0;    // a polled value older than this is not shown as confirmed
    qint64 portDownMs = 0;  // time without it
    LineHealth health;      // per station

    // Counts one transaction: the driver's result for it and what the line brought.
    void record(int result, const Exchange &exchange);
    // Counts only what the line brought: the frames set aside and the noise of an exchange
    // that a stop cut short.
    void recordLine(const Exchange &exchange);
    qint64 strayFramesTotal() const;
    qint64 abandonedTotal() const;
};

// Words for a DataCom result code: 1, 0, and the three rejection families of 11, 41 and 71
// (offset by the request's ownerType).
QString ResultName(int result);

#endif  // MODBUS_ASCII_HOST_RUN_STATS_H
