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

struct RunStats {
    int transactions = 0;      // frames sent and answered (or timed out) through DataCom
    int accepted = 0;          // DataCom returned 1
    int retried = 0;           // DataCom returned 0: the frame is sent again
    QMap<int, int> abandoned;  // DataCom's rejection code -> requests abandoned with it
    qint64 lineNanosecondsTotal = 0;
    qint64 lineNanosecondsMax = 0;
    qint64 driverCpuNanoseconds = 0;  // inside ComCommunication and DataCom
    int passes = 0;                   // full passes of the cyclic read list
    int driverCycleMarks = 0;         // times a DataCom set ComInfo's cycleDone word
    bool interrupted = false;
    std::vector<Completion> completions;
    int exceptionReplies = 0;  // exception replies handed to the driver, which rejects them
    std::array<int, kFrameKindCount> strayFrames{};  // frames set aside, by kind
    int noiseCharacters = 0;
    int echoesRemoved = 0;  // the adapter's echoes of the requests, not counted as stray
    EchoMode echoMode = EchoMode::Auto;
    EchoFinding echoFinding = EchoFinding::Unknown;
    LateReplyFigures lateReplies;
    int portLosses = 0;     // times the serial port went away
    qint64 portDownMs = 0;  // time without it
    LineHealth health;      // per station

    // Counts one transaction: the driver's result for it and what the line brought.
    void record(int result, const Exchange &exchange);
    int strayFramesTotal() const;
    int abandonedTotal() const;
};

// Words for a DataCom result code: 1, 0, and the three rejection families of 11, 41 and 71
// (offset by the request's ownerType).
QString ResultName(int result);

#endif  // MODBUS_ASCII_HOST_RUN_STATS_H
