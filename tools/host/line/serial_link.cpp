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

// Frames of these kinds, when no owed reply accounts for them, are the slave's answer spoilt on
// the way: nothing more is owed.
bool IsSpoiltAnswer(FrameKind kind) {
    return kind == FrameKind::Garbled || kind == FrameKind::WrongLength ||
           kind == FrameKind::OtherRequest || kind == FrameKind::OtherFunction;
}

}  // namespace

SerialLink::SerialLink(const SerialSettings &settings)
    : SerialLink(settings, MakeLineDevice(settings)) {}

SerialLink::SerialLink(const SerialSettings &settings, std::unique_ptr<LineDevice> device)
    : settings_(settings),
      device_(std::move(device)),
      stopCheck_(StopRequested),
      echo_(settings.echo),
      late_(settings.replyDeadlineMs(), settings.quietGapMs()) {
    clock_.start();
    device_->open();
}

bool SerialLink::reopen() {
    device_->close();
    assembler_.takePartial();
    try {
        device_->open();
    } catch (const ToolError &) {
        device_->close();
        return false;
    }
    return true;
}

void SerialLink::lose() {
    throw PortLost{device_->lostReason()};
}

Exchange SerialLink::exchange(const QByteArray &frame, bool replyExpected) {
    Exchange exchange;
    interrupted_ = false;
    brokenReplySeen_ = false;
    holdForOwedReplies(frame, exchange);
    if (interrupted_) {
        exchange.interrupted = true;
        return exchange;
    }
    setAsideLeftovers(exchange);
    const EchoFinding findingBefore = echo_.finding();
    if (replyExpected && echo_.wantsProbe(frame)) probeEcho(frame);
    echo_.startExchange(frame);
    QElapsedTimer timer;
    timer.start();
    send(frame);
    const qint64 sent = timer.nsecsElapsed();
    const qint64 sentMs = clock_.elapsed();
    if (replyExpected) {
        receiveAnswer(frame, exchange);
        exchange.responseNanoseconds = timer.nsecsElapsed() - sent;
        exchange.lineNanoseconds = timer.nsecsElapsed();
        if (!interrupted_) noteOutcome(frame, sentMs, exchange);
        if (exchange.reply.isEmpty()) waitForQuietLine(exchange);
    } else {
        // Nobody answers a broadcast; the pause gives the slaves time to carry it out.
        pause(settings_.turnaroundMs);
        setAsideBroadcastEcho(exchange);
        exchange.lineNanoseconds = timer.nsecsElapsed();
    }
    exchange.echoFound = echo_.finding() != findingBefore;
    exchange.noiseCharacters += assembler_.takeNoiseCharacters();
    exchange.interrupted = interrupted_;
    return exchange;
}

void SerialLink::send(const QByteArray &frame) {
    if (!device_->write(frame)) lose();
    const QDeadlineTimer deadline(settings_.replyDeadlineMs());
    while (device_->bytesToWrite() > 0 && !stopping()) {
        if (deadline.hasExpired()) lose();
        if (!device_->waitForBytesWritten(kStopCheckMs)) checkPort();
    }
}

// Whatever is still waiting, in Qt's buffer or the kernel's (a late reply to an abandoned
// request), belongs to no request: it is set aside and counted, never discarded unseen.
void SerialLink::setAsideLeftovers(Exchange &exchange) {
    do {
        setAsideAsLate(assembler_.feed(device_->readAll()), exchange);
    } while (!stopping() && device_->waitForReadyRead(0));
    setAsideAsLate({assembler_.takePartial()}, exchange);
}

// Frames until one answers frame. The answer must begin within the reply time-out; a frame
// under way then may go on, with gaps no longer than the inter-character time-out, for as
// long as the longest frame takes on the line, and not a moment more: a line that keeps a
// frame open without ever ending it cannot hold the wait. Frames that do not answer are set
// aside and the wait goes on.
void SerialLink::receiveAnswer(const QByteArray &frame, Exchange &exchange) {
    const QDeadlineTimer firstCharacter(settings_.replyDeadlineMs());
    const QDeadlineTimer lastCharacter(qint64{settings_.replyDeadlineMs()} + longestFrameMs());
    for (;;) {
        const qint64 wait = assembler_.inFrame() ? std::min<qint64>(settings_.charTimeoutMs,
                                                                    lastCharacter.remainingTime())
                                                 : firstCharacter.remainingTime();
        if (wait <= 0) return;
        if (!waitForCharacters(static_cast<int>(wait))) {
            if (interrupted_) return;
            const QByteArray partial = assembler_.takePartial();
            if (partial.isEmpty()) return;
            setAside(FrameKind::Garbled, partial, exchange);
            continue;
        }
        for (const QByteArray &piece : assembler_.feed(device_->readAll())) {
            if (const std::optional<FrameKind> aside = echo_.screen(piece)) {
                setAside(*aside, piece, exchange);
                if (echo_.attemptSpoiled()) return;
                continue;
            }
            const FrameKind kind = ClassifyReply(frame, piece);
            if (IsHandedToDriver(kind) && exchange.reply.isEmpty()) {
                exchange.reply = piece;
                exchange.replyKind = kind;
            } else {
                setAside(kind, piece, exchange);
            }
        }
        if (!exchange.reply.isEmpty()) return;
    }
}

// A request that an owed reply could fool waits until that reply has come or is given up;
// whatever comes meanwhile is set aside as late.
void SerialLink::holdForOwedReplies(const QByteArray &frame, Exchange &exchange) {
    const qint64 start = clock_.elapsed();
    qint64 hold = late_.holdFor(frame, start);
    if (hold <= 0) return;
    do {
        if (waitForCharacters(static_cast<int>(hold))) {
            setAsideAsLate(assembler_.feed(device_->readAll()), exchange);
        } else if (interrupted_) {
            return;
        }
        hold = late_.holdFor(frame, clock_.elapsed());
    } while (hold > 0);
    late_.noteHold(clock_.elapsed() - start);
}

// Keeps a frame that belongs to no request, or only its characters once the exchange holds
// as many such frames as it keeps.
void SerialLink::setAside(FrameKind kind, const QByteArray &piece, Exchange &exchange) {
    if (piece.isEmpty()) return;
    if (exchange.strays.size() < kMaxStrayFramesKept) {
        exchange.strays.append({kind, piece});
    } else {
        exchange.noiseCharacters += piece.size();
    }
    const bool owed = late_.noteSetAside(piece, clock_.elapsed());
    if (!owed && IsSpoiltAnswer(kind)) brokenReplySeen_ = true;
}

// Pieces that belong to no request: what came after a time-out or before a send.
void SerialLink::setAsideAsLate(const QList<QByteArray> &pieces, Exchange &exchange) {
    for (const QByteArray &piece : pieces) setAside(FrameKind::Late, piece, exchange);
}

// An answer leaves an owed reply of the same request owed; a request that brought neither an
// answer nor a spoilt one may still be answered late.
void SerialLink::noteOutcome(const QByteArray &frame, qint64 sentMs, const Exchange &exchange) {
    if (!exchange.reply.isEmpty()) {
        late_.noteAnswered(frame, sentMs, clock_.elapsed());
    } else if (!brokenReplySeen_) {
        late_.noteUnanswered(frame, sentMs);
    }
}

// Sends the read of EchoProbeFor and waits for its answer (or its time-out): an echo or an
// answer tells the filter whether the adapter echoes. Its frames answer the host's own
// question, so they are neither handed to the driver nor counted.
void SerialLink::probeEcho(const QByteArray &write) {
    const QByteArray probe = EchoProbeFor(write);
    echo_.startExchange(probe);
    send(probe);
    const QDeadlineTimer deadline(settings_.replyDeadlineMs());
    bool answered = false;
    while (!answered && waitForCharacters(static_cast<int>(deadline.remainingTime()))) {
        for (const QByteArray &piece : assembler_.feed(device_->readAll())) {
            answered =
                answered || (!echo_.screen(piece) && IsHandedToDriver(ClassifyReply(probe, piece)));
        }
    }
    Exchange unanswered;
    if (!answered) waitForQuietLine(unanswered);
}

// Nobody answers a broadcast, but an echoing adapter sends it back.
void SerialLink::setAsideBroadcastEcho(Exchange &exchange) {
    for (const QByteArray &piece : assembler_.feed(device_->readAll())) {
        setAside(echo_.screen(piece).value_or(FrameKind::Late), piece, exchange);
    }
}

// After a time-out the slave may still be answering: the next request waits until no
// character has come for the quiet gap, however long the line stays busy, and whatever came
// is set aside as late. Only a stop ends the wait sooner.
void SerialLink::waitForQuietLine(Exchange &exchange) {
    while (waitForCharacters(settings_.quietGapMs())) {
        setAsideAsLate(assembler_.feed(device_->readAll()), exchange);
    }
    setAsideAsLate({assembler_.takePartial()}, exchange);
}

// True when characters arrived within milliseconds; false after that silence, or as soon as
// stopCheck_ says so. A port error means the port is lost.
bool SerialLink::waitForCharacters(int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    for (;;) {
        if (device_->bytesAvailable() > 0) return true;
        if (stopping()) return false;
        const qint64 slice = std::min<qint64>(deadline.remainingTime(), kStopCheckMs);
        if (slice <= 0) return false;
        if (device_->waitForReadyRead(static_cast<int>(slice))) return true;
        checkPort();
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

// A wait that ended in silence is no error; anything else means the device is lost.
void SerialLink::checkPort() {
    if (device_->lost()) lose();
}
