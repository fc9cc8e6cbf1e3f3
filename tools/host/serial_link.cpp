#include "serial_link.h"

#include <QElapsedTimer>
#include <QThread>

#include "tool_error.h"

namespace {

// A line that never ends a frame still ends the reply here: far above any real frame.
constexpr int kMaxReplyCharacters = 65536;

QSerialPort::Parity ParityOf(char parity) {
    if (parity == 'E') return QSerialPort::EvenParity;
    if (parity == 'O') return QSerialPort::OddParity;
    return QSerialPort::NoParity;
}

}  // namespace

SerialLink::SerialLink(const SerialSettings &settings) : settings_(settings) {
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
    // Whatever is still waiting (a late reply to an abandoned request) belongs to no request.
    port_.clearError();
    port_.clear(QSerialPort::Input);
    QElapsedTimer timer;
    timer.start();
    send(frame);
    Exchange exchange;
    if (replyExpected) {
        exchange.reply = receiveReply();
    } else {
        // Nobody answers a broadcast; the pause gives the slaves time to carry it out.
        QThread::msleep(static_cast<unsigned long>(settings_.turnaroundMs));
    }
    exchange.lineNanoseconds = timer.nsecsElapsed();
    return exchange;
}

void SerialLink::send(const QByteArray &frame) {
    if (port_.write(frame) != frame.size()) fail(QStringLiteral("cannot write to"));
    while (port_.bytesToWrite() > 0) {
        if (!port_.waitForBytesWritten(settings_.replyTimeoutMs)) {
            fail(QStringLiteral("cannot write to"));
        }
    }
}

// Characters up to the first LF. The reply time-out bounds the wait for the first character,
// the inter-character time-out every later gap, so that long replies on slow lines still fit.
QByteArray SerialLink::receiveReply() {
    QByteArray reply;
    while (!reply.contains('\n') && reply.size() < kMaxReplyCharacters) {
        const int wait = reply.isEmpty() ? settings_.replyTimeoutMs : settings_.charTimeoutMs;
        if (!port_.waitForReadyRead(wait)) {
            if (port_.error() != QSerialPort::NoError &&
                port_.error() != QSerialPort::TimeoutError) {
                fail(QStringLiteral("cannot read from"));
            }
            break;
        }
        reply += port_.readAll();
    }
    const int lineFeed = reply.indexOf('\n');
    return lineFeed < 0 ? reply : reply.left(lineFeed + 1);
}
