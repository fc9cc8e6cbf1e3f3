// SPDX-License-Identifier: MIT
#include "serial_link.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QThread>
#include <algorithm>
#include <cmath>

#include "stop_request.h"
#include "tool_error.h"

namespace {

// Characters of the longest Modbus ASCII frame: ':', 255 bytes (station, PDU, LRC) as hex
// digits, CR LF.
constexpr int kLongestFrameCharacters = 513;

// Keeps a frame that belongs to no request, or only its characters once the exchange holds
// as many such frames as it keeps.
void SetAside(FrameKind kind, const QByteArray &piece, Exchange &exchange) {
    if (piece.isEmpty()) return;
    if (exchange.strays.size() < kMaxStrayFramesKept) {
        exchange.strays.append({kind, piece});
    } else {
        exchange.noiseCharacters += piece.size();
    }
}

// Pieces that belong to no request: what came after a time-out or before a send.
void SetAsideAsLate(const QList<QByteArray> &pieces, Exchange &exchange) {
    for (const QByteArray &piece : pieces) SetAside(FrameKind::Late, piece, exchange);
}

QSerialPort::Parity ParityOf(char parity) {
    if (parity == 'E') return QSerialPort::EvenParity;
    if (parity == 'O') return QSerialPort::OddParity;
    return QSerialPort::NoParity;
}

}  // namespace

SerialLink::SerialLink(const SerialSettings &settings)
    : settings_(settings), stopCheck_(StopRequested) {
    port_.setPortName(settings_.device);
    if (!port_.open(QIODevice::ReadWrite)) fail(QStringLiteral("cannot open"));
    configure();
}

void SerialLink::configure() {
    if (!port_.setBaudRate(settings_.baudRate)) {
        fail(QStringLiteral("cannot set %1 baud on").arg(settings_.baudRate));
    }
    if (!port_.setDataBits(static_cast<QSerialPort::DataBits>(settings_.dataBits))) {
        fail(QStringLiteral("cannot set %1 data bits on").arg(settings_.dataBits));
    }
    if (!port_.setParity(ParityOf(settings_.parity))) {
        fail(QStringLiteral("cannot set parity %1 on").arg(QLatin1Char(settings_.parity)));
    }
    const auto stopBits = settings_.stopBits == 2 ? QSerialPort::TwoStop : QSerialPort::OneStop;
    if (!port_.setStopBits(stopBits)) {
        fail(QStringLiteral("cannot set %1 stop bits on").arg(settings_.stopBits));
    }
    if (!port_.setFlowControl(QSerialPort::NoFlowControl)) {
        fail(QStringLiteral("cannot switch off flow control on"));
    }
}

void SerialLink::fail(const QString &what) {
    throw ToolError(
        QStringLiteral("%1 serial port %2: %3").arg(what, settings_.device, port_.errorString()));
}

Exchange SerialLink::exchange(const QByteArray &frame, bool replyExpected) {
    Exchange exchange;
    interrupted_ = false;
    setAsideLeftovers(exchange);
    QElapsedTimer timer;
    timer.start();
    send(frame);
    const qint64 sent = timer.nsecsElapsed();
    if (replyExpected) {
        receiveAnswer(frame, exchange);
        exchange.responseNanoseconds = timer.nsecsElapsed() - sent;
        exchange.lineNanoseconds = timer.nsecsElapsed();
        if (exchange.reply.isEmpty()) waitForQuietLine(exchange);
    } else {
        // Nobody answers a broadcast; the pause gives the slaves time to carry it out.
        pause(settings_.turnaroundMs);
        exchange.lineNanoseconds = timer.nsecsElapsed();
    }
    exchange.noiseCharacters += assembler_.takeNoiseCharacters();
    exchange.interrupted = interrupted_;
    return exchange;
}

void SerialLink::send(const QByteArray &frame) {
    if (port_.write(frame) != frame.size()) fail(QStringLiteral("cannot write to"));
    const QDeadlineTimer deadline(settings_.replyTimeoutMs);
    while (port_.bytesToWrite() > 0 && !stopping()) {
        if (deadline.hasExpired()) fail(QStringLiteral("cannot write to"));
        if (!port_.waitForBytesWritten(kStopCheckMs)) checkPort(QStringLiteral("cannot write to"));
    }
}

// Whatever is still waiting, in Qt's buffer or the kernel's (a late reply to an abandoned
// request), belongs to no request: it is set aside and counted, never discarded unseen.
void SerialLink::setAsideLeftovers(Exchange &exchange) {
    port_.clearError();
    do {
        SetAsideAsLate(assembler_.feed(port_.readAll()), exchange);
    } while (!stopping() && port_.waitForReadyRead(0));
    port_.clearError();
    SetAsideAsLate({assembler_.takePartial()}, exchange);
}

// Frames until one answers frame. The answer must begin within the reply time-out; a frame
// under way then may go on, with gaps no longer than the inter-character time-out, for as
// long as the longest frame takes on the line, and not a moment more: a line that keeps a
// frame open without ever ending it cannot hold the wait. Frames that do not answer are set
// aside and the wait goes on.
void SerialLink::receiveAnswer(const QByteArray &frame, Exchange &exchange) {
    const QDeadlineTimer firstCharacter(settings_.replyTimeoutMs);
    const QDeadlineTimer lastCharacter(qint64{settings_.replyTimeoutMs} + longestFrameMs());
    for (;;) {
        const qint64 wait = assembler_.inFrame() ? std::min<qint64>(settings_.charTimeoutMs,
                                                                    lastCharacter.remainingTime())
                                                 : firstCharacter.remainingTime();
        if (wait <= 0) return;
        if (!waitForCharacters(static_cast<int>(wait))) {
            if (interrupted_) return;
            const QByteArray partial = assembler_.takePartial();
            if (partial.isEmpty()) return;
            SetAside(FrameKind::Garbled, partial, exchange);
            continue;
        }
        for (const QByteArray &piece : assembler_.feed(port_.readAll())) {
            const FrameKind kind = ClassifyReply(frame, piece);
            if (IsHandedToDriver(kind) && exchange.reply.isEmpty()) {
                exchange.reply = piece;
                exchange.replyKind = kind;
            } else {
                SetAside(kind, piece, exchange);
            }
        }
        if (!exchange.reply.isEmpty()) return;
    }
}

// After a time-out the slave may still be answering: the next request waits until no
// character has come for the quiet gap, however long the line stays busy, and whatever came
// is set aside as late. Only a stop ends the wait sooner.
void SerialLink::waitForQuietLine(Exchange &exchange) {
    while (waitForCharacters(settings_.quietMs)) {
        SetAsideAsLate(assembler_.feed(port_.readAll()), exchange);
    }
    SetAsideAsLate({assembler_.takePartial()}, exchange);
}

// True when characters arrived within milliseconds; false after that silence, or as soon as
// stopCheck_ says so. A port error ends the run.
bool SerialLink::waitForCharacters(int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    for (;;) {
        if (port_.bytesAvailable() > 0) return true;
        if (stopping()) return false;
        const qint64 slice = std::min<qint64>(deadline.remainingTime(), kStopCheckMs);
        if (slice <= 0) return false;
        if (port_.waitForReadyRead(static_cast<int>(slice))) return true;
        checkPort(QStringLiteral("cannot read from"));
    }
}

// Sleeps for milliseconds, or until stopCheck_ says so.
void SerialLink::pause(int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    while (!stopping() && !deadline.hasExpired()) {
        QThread::msleep(
            static_cast<unsigned long>(std::min<qint64>(deadline.remainingTime(), kStopCheckMs)));
    }
}

bool SerialLink::stopping() {
    if (!interrupted_ && stopCheck_ && stopCheck_()) interrupted_ = true;
    return interrupted_;
}

// How long the longest frame takes on the line: start bit, data bits, parity bit and stop
// bits for each character.
int SerialLink::longestFrameMs() const {
    const int bitsPerCharacter =
        1 + settings_.dataBits + (settings_.parity == 'N' ? 0 : 1) + settings_.stopBits;
    return static_cast<int>(
        std::ceil(1000.0 * kLongestFrameCharacters * bitsPerCharacter / settings_.baudRate));
}

// A time-out is no error; anything else the port reports ends the run.
void SerialLink::checkPort(const QString &what) {
    if (port_.error() != QSerialPort::NoError && port_.error() != QSerialPort::TimeoutError) {
        fail(what);
    }
    port_.clearError();
}
