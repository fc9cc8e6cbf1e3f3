// SPDX-License-Identifier: MIT
#include "tcp_device.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <QDeadlineTimer>
#include <QHostInfo>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "tool_error.h"

namespace {

// What a read may pile up between two reads of the link: far more than any exchange brings,
// so that a server that floods the connection cannot fill the memory.
constexpr qint64 kReadBufferBytes = 64 * 1024;
// The most of what a closing server said that goes into the message.
constexpr int kMaxSaidCharacters = 80;
// Closing waits this long for the server to take the end of the connection.
constexpr int kCloseWaitMs = 200;

void SetTcpOption(int descriptor, int option, int value) {
    ::setsockopt(descriptor, IPPROTO_TCP, option, &value, sizeof value);
}

// The printable part of what a server sent before it closed: "Port already in use".
QString PrintableText(const QByteArray &bytes) {
    QString text;
    for (char c : bytes) {
        if (c >= ' ' && c <= '~') text.append(QLatin1Char(c));
        if (c == '\n' || text.size() >= kMaxSaidCharacters) break;
    }
    return text.trimmed();
}

}  // namespace

TcpDevice::TcpDevice(const LinkAddress &address, const SerialSettings &settings)
    : address_(address), settings_(settings) {
    socket_.setReadBufferSize(kReadBufferBytes);
}

TcpDevice::~TcpDevice() {
    TcpDevice::close();
}

QString TcpDevice::name() const {
    return QStringLiteral("connection %1").arg(settings_.device);
}

void TcpDevice::open() {
    close();
    lossReason_.clear();
    connectSocket();
    keepAlive();
    try {
        greet();
    } catch (const ToolError &) {
        socket_.abort();
        throw;
    }
}

void TcpDevice::refuse(const QString &why) const {
    throw ToolError(QStringLiteral("--port %1: %2").arg(settings_.device, why));
}

// A name is looked up in a thread of its own, so that a resolver that does not answer holds
// the open no longer than the connection's time; such a lookup is left to end by itself. An
// IP address needs no lookup. Every address a name has is tried in turn.
QList<QHostAddress> TcpDevice::resolve(int timeoutMs) const {
    const QHostAddress literal(address_.host);
    if (!literal.isNull()) return {literal};
    auto lookup = std::make_shared<std::promise<QHostInfo>>();
    std::future<QHostInfo> found = lookup->get_future();
    std::thread([lookup, name = address_.host] {
        lookup->set_value(QHostInfo::fromName(name));
    }).detach();
    if (found.wait_for(std::chrono::milliseconds(timeoutMs)) != std::future_status::ready) {
        refuse(QStringLiteral("cannot resolve %1: no answer within %2 ms")
                   .arg(address_.host)
                   .arg(timeoutMs));
    }
    const QHostInfo info = found.get();
    if (info.error() != QHostInfo::NoError || info.addresses().isEmpty()) {
        refuse(QStringLiteral("cannot resolve %1: %2").arg(address_.host, info.errorString()));
    }
    return info.addresses();
}

void TcpDevice::connectSocket() {
    const QDeadlineTimer deadline(kConnectTimeoutMs);
    QString why;
    for (const QHostAddress &host : resolve(kConnectTimeoutMs)) {
        socket_.connectToHost(host, address_.port);
        if (socket_.waitForConnected(static_cast<int>(deadline.remainingTime()))) return;
        why = socket_.error() == QAbstractSocket::SocketTimeoutError
                  ? QStringLiteral("no connection within %1 ms").arg(kConnectTimeoutMs)
                  : socket_.errorString();
        socket_.abort();
        if (deadline.hasExpired()) break;
    }
    refuse(QStringLiteral("cannot connect: %1").arg(why));
}

// Frames go out as soon as they are written (no Nagle delay), and a peer that vanishes
// without closing (a device server switched off, a cable pulled) is noticed within
// kDeadConnectionMs whether the line is busy or idle.
void TcpDevice::keepAlive() {
    socket_.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    socket_.setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    const int descriptor = static_cast<int>(socket_.socketDescriptor());
    SetTcpOption(descriptor, TCP_KEEPIDLE, kKeepAliveIdleS);
    SetTcpOption(descriptor, TCP_KEEPINTVL, kKeepAliveIntervalS);
    SetTcpOption(descriptor, TCP_KEEPCNT, kKeepAliveProbes);
    SetTcpOption(descriptor, TCP_USER_TIMEOUT, kDeadConnectionMs);
}

// A server whose serial port is in use takes the connection, may say so and closes it: that
// is no open, and what it sent is no line traffic.
void TcpDevice::greet() {
    if (socket_.waitForDisconnected(kBusyCheckMs + settings_.linkLatencyMs)) refuse(closedAtOnce());
}

QString TcpDevice::closedAtOnce() {
    const QString said = PrintableText(socket_.readAll());
    QString why = QStringLiteral("the server closed the connection at once");
    if (!said.isEmpty()) why += QStringLiteral(" (it said: %1)").arg(said);
    return why;
}

void TcpDevice::close() {
    if (socket_.state() == QAbstractSocket::UnconnectedState) return;
    socket_.disconnectFromHost();
    if (socket_.state() != QAbstractSocket::UnconnectedState) {
        socket_.waitForDisconnected(kCloseWaitMs);
    }
    socket_.abort();
}

bool TcpDevice::write(const QByteArray &bytes) {
    if (!connected() || socket_.write(bytes) != bytes.size()) return false;
    socket_.flush();
    return true;
}

bool TcpDevice::waitForBytesWritten(int milliseconds) {
    return connected() && socket_.waitForBytesWritten(milliseconds);
}

bool TcpDevice::waitForReadyRead(int milliseconds) {
    return connected() && socket_.waitForReadyRead(milliseconds);
}

// The reason is taken when the loss is first seen: later calls on the closed socket would
// only report that it is not connected.
bool TcpDevice::lost() {
    if (connected()) return false;
    if (lossReason_.isEmpty()) {
        lossReason_ = socket_.error() == QAbstractSocket::RemoteHostClosedError
                          ? QStringLiteral("the server closed the connection")
                          : socket_.errorString();
    }
    return true;
}

QString TcpDevice::lostReason() {
    lost();
    return lossReason_.isEmpty() ? socket_.errorString() : lossReason_;
}

QString TcpDevice::settingsNote() const {
    return QStringLiteral(
        "a raw stream: the device server keeps its own line settings; --baud, --data-bits, "
        "--parity and --stop-bits are not sent");
}
