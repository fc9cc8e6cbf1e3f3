// SPDX-License-Identifier: MIT
// Trace and completion lines.
#include "line_trace.h"

#include <cstdio>

namespace {

void PrintLine(const QString &line) {
    std::fprintf(stderr, "%s\n", line.toUtf8().constData());
    std::fflush(stderr);  // scripts read the trace line by line through a pipe
}

// Frame characters for the trace: CR LF dropped, anything unprintable as \xNN.
QString Printable(const QByteArray &bytes) {
    QString text;
    for (char c : bytes) {
        const auto byte = static_cast<quint8>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            text.append(QLatin1Char(c));
        } else if (c != '\r' && c != '\n') {
            text.append(QStringLiteral("\\x%1").arg(byte, 2, 16, QLatin1Char('0')));
        }
    }
    return text;
}

QString Timestamp(qint64 nanoseconds) {
    return QString::number(static_cast<double>(nanoseconds) / 1e9, 'f', 6);
}

}  // namespace

QString EchoFindingText(EchoMode mode, EchoFinding finding) {
    if (mode == EchoMode::Off) return QStringLiteral("not looked for");
    switch (finding) {
        case EchoFinding::Present:
            return QStringLiteral("the adapter echoes every request; echoes are removed");
        case EchoFinding::Absent:
            return QStringLiteral("the adapter does not echo");
        case EchoFinding::Unknown:
            break;
    }
    return QStringLiteral("not known yet (nothing has answered)");
}

void LineTrace::sent(qint64 nanoseconds, const QByteArray &frame) {
    PrintLine(Timestamp(nanoseconds) + QStringLiteral(" TX ") + Printable(frame));
}

void LineTrace::received(qint64 nanoseconds, const QByteArray &reply, bool replyExpected,
                         int result) {
    QString received = Printable(reply);
    if (reply.isEmpty()) {
        received =
            replyExpected ? QStringLiteral("(nothing)") : QStringLiteral("(no reply expected)");
    }
    PrintLine(Timestamp(nanoseconds) + QStringLiteral(" RX ") + received +
              QStringLiteral(" -> %1 %2").arg(result).arg(ResultName(result)));
}

void LineTrace::stray(qint64 nanoseconds, const StrayFrame &stray) {
    PrintLine(Timestamp(nanoseconds) +
              QStringLiteral(" RX set aside (%1): %2")
                  .arg(QLatin1String(FrameKindName(stray.kind)), Printable(stray.frame)));
}

void LineTrace::echoFound(qint64 nanoseconds, const EchoFilter &echo) {
    PrintLine(Timestamp(nanoseconds) + QStringLiteral(" local echo (%1): %2")
                                           .arg(QLatin1String(EchoModeName(echo.mode())),
                                                EchoFindingText(echo.mode(), echo.finding())));
}

void LineTrace::completion(const Completion &completion) {
    PrintLine(
        QStringLiteral("completion: device %1, owner %2/%3, status %4 (%5)")
            .arg(completion.deviceId)
            .arg(completion.ownerType)
            .arg(completion.ownerId)
            .arg(completion.status)
            .arg(completion.status == 1 ? QStringLiteral("done") : QStringLiteral("abandoned")));
}
