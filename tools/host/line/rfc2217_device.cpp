// SPDX-License-Identifier: MIT
#include "rfc2217_device.h"

#include "com_port_option.h"

// A new connection starts a new negotiation: the client asks for COM-PORT-OPTION, sends the
// four settings once the server has agreed, and waits for every answer. A server that closes
// the connection meanwhile (its port is in use) or answers another value than asked refuses
// the open.
void Rfc2217Device::greet() {
    codec_ = TelnetCodec();
    data_.clear();
    const QDeadlineTimer deadline(kConnectTimeoutMs + settings().linkLatencyMs);
    TcpDevice::write(codec_.openingRequest());
    awaitComPortOption(deadline);
    ComPortSettingsCheck check(settings());
    TcpDevice::write(ComPortSettingsRequest(settings()));
    while (!check.complete()) {
        awaitServer(deadline, QStringLiteral("its answer to the %1").arg(check.firstUnanswered()));
        for (const ComPortMessage &message : decodeArrived()) check.note(message);
    }
    if (const std::optional<QString> refusal = check.refusal()) {
        refuse(QStringLiteral("the server refused %1").arg(*refusal));
    }
    inForce_ = check.inForce();
}

void Rfc2217Device::awaitComPortOption(const QDeadlineTimer &deadline) {
    for (;;) {
        decodeArrived();
        if (codec_.comPort() == OptionState::Enabled) return;
        if (codec_.comPort() == OptionState::Refused) {
            refuse(
                QStringLiteral("the server refused the COM-PORT option (RFC 2217): it does "
                               "not set the line; tcp:// reaches it as a raw stream"));
        }
        awaitServer(deadline, QStringLiteral("its agreement to the COM-PORT option"));
    }
}

// Waits for the server to send something before the deadline; its silence, or its closing
// the connection, ends the open.
void Rfc2217Device::awaitServer(const QDeadlineTimer &deadline, const QString &awaited) {
    if (TcpDevice::waitForReadyRead(static_cast<int>(deadline.remainingTime()))) return;
    if (!connected()) refuse(closedAtOnce());
    refuse(QStringLiteral("no %1 within %2 ms")
               .arg(awaited)
               .arg(kConnectTimeoutMs + settings().linkLatencyMs));
}

// Runs what has arrived through the codec: data is kept for reading, negotiation answers go
// back at once, and the COM-PORT messages are returned (after the open nobody asks for them:
// the server's notifications of line and modem state carry nothing the link needs).
QList<ComPortMessage> Rfc2217Device::decodeArrived() {
    data_.append(codec_.decode(TcpDevice::readAll()));
    const QByteArray answers = codec_.takeAnswers();
    if (!answers.isEmpty()) TcpDevice::write(answers);
    return codec_.takeComPortMessages();
}

bool Rfc2217Device::write(const QByteArray &bytes) {
    return TcpDevice::write(TelnetCodec::escape(bytes));
}

qint64 Rfc2217Device::bytesAvailable() {
    decodeArrived();
    return data_.size();
}

QByteArray Rfc2217Device::readAll() {
    decodeArrived();
    QByteArray data;
    data.swap(data_);
    return data;
}

// Bytes that were all Telnet commands are no data: the wait goes on until data has come or the
// time is up.
bool Rfc2217Device::waitForReadyRead(int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    while (bytesAvailable() == 0) {
        if (!TcpDevice::waitForReadyRead(static_cast<int>(deadline.remainingTime()))) return false;
    }
    return true;
}

QString Rfc2217Device::settingsNote() const {
    return QStringLiteral("the device server set %1 (RFC 2217)").arg(inForce_);
}
