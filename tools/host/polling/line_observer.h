// SPDX-License-Identifier: MIT
// What the poll loop tells whoever follows the line closely (the frame trace of --trace, the
// completions of --verbose): it knows the interface, never who implements it.
#ifndef MODBUS_ASCII_HOST_LINE_OBSERVER_H
#define MODBUS_ASCII_HOST_LINE_OBSERVER_H

#include <QByteArray>

#include "echo_filter.h"
#include "line_layer.h"
#include "run_stats.h"

class LineObserver {
public:
    virtual ~LineObserver() = default;
    // A frame sent, nanoseconds into the run.
    virtual void sent(qint64 nanoseconds, const QByteArray &frame) = 0;
    // The answer to it (empty: none came) and DataCom's result.
    virtual void received(qint64 nanoseconds, const QByteArray &reply, bool replyExpected,
                          int result) = 0;
    // A frame the line layer set aside as not the answer.
    virtual void stray(qint64 nanoseconds, const StrayFrame &stray) = 0;
    // What the echo filter found out about the adapter.
    virtual void echoFound(qint64 nanoseconds, const EchoFilter &echo) = 0;
    // A completion the driver recorded for a write or a one-shot read.
    virtual void completion(const Completion &completion) = 0;
};

#endif  // MODBUS_ASCII_HOST_LINE_OBSERVER_H
