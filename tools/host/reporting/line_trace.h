// SPDX-License-Identifier: MIT
// The frame trace of --trace and the completions of --verbose, on standard error, as the poll
// loop tells of them; and the echo finding in words, which the summary shows too.
#ifndef MODBUS_ASCII_HOST_LINE_TRACE_H
#define MODBUS_ASCII_HOST_LINE_TRACE_H

#include <QString>

#include "echo_filter.h"
#include "line_observer.h"

// The frame trace and the completions on standard error.
class LineTrace : public LineObserver {
public:
    void sent(qint64 nanoseconds, const QByteArray &frame) override;
    void received(qint64 nanoseconds, const QByteArray &reply, bool replyExpected,
                  int result) override;
    void stray(qint64 nanoseconds, const StrayFrame &stray) override;
    void echoFound(qint64 nanoseconds, const EchoFilter &echo) override;
    void completion(const Completion &completion) override;
};

// "the adapter echoes every request; echoes are removed", "not looked for", ...
QString EchoFindingText(EchoMode mode, EchoFinding finding);

#endif  // MODBUS_ASCII_HOST_LINE_TRACE_H
