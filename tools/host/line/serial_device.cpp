// SPDX-License-Identifier: MIT
#include "serial_device.h"

#include <unistd.h>

#include <QFile>
#include <cerrno>

#include "rs485.h"
#include "tool_error.h"

namespace {

QSerialPort::Parity ParityOf(char parity) {
    if (parity == 'E') return QSerialPort::EvenParity;
    if (parity == 'O') return QSerialPort::OddParity;
    return QSerialPort::NoParity;
}

}  // namespace

SerialDevice::SerialDevice(const SerialSettings &settings) : settings_(settings) {
    port_.setPortName(settings_.device);
}

QString SerialDevice::name() const {
    return QStringLiteral("serial port %1").arg(settings_.device);
}

void SerialDevice::open() {
    port_.close();
    if (!port_.open(QIODevice::ReadWrite)) fail(QStringLiteral("cannot open"));
    try {
        configure();
    } catch (const ToolError &) {
        port_.close();
        throw;
    }
}

void SerialDevice::configure() {
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
    if (settings_.rs485.enabled) {
        rs485InForce_ = ApplyRs485(port_.handle(), settings_.device, settings_.rs485);
    }
}

void SerialDevice::fail(const QString &what) {
    throw ToolError(
        QStringLiteral("%1 serial port %2: %3").arg(what, settings_.device, port_.errorString()));
}

bool SerialDevice::write(const QByteArray &bytes) {
    return port_.write(bytes) == bytes.size();
}

bool SerialDevice::waitForBytesWritten(int milliseconds) {
    return port_.waitForBytesWritten(milliseconds);
}

bool SerialDevice::waitForReadyRead(int milliseconds) {
    return port_.waitForReadyRead(milliseconds);
}

// A time-out is no error; anything else the port reports means the port is lost.
bool SerialDevice::lost() {
    const QSerialPort::SerialPortError error = port_.error();
    if (error != QSerialPort::NoError && error != QSerialPort::TimeoutError) return true;
    port_.clearError();
    return false;
}

// The system's own words for what happened to the port. When poll() reports a hang-up Qt names
// no reason ("Unknown error"), so the descriptor is asked: a read says why it fails (a USB
// adapter pulled: "Input/output error"), and a device node that is gone says so.
QString SerialDevice::lostReason() {
    char byte = 0;
    if (::read(static_cast<int>(port_.handle()), &byte, 1) < 0 && errno != EAGAIN) {
        return qt_error_string(errno);
    }
    if (::access(QFile::encodeName(settings_.device).constData(), F_OK) != 0) {
        return qt_error_string(errno);
    }
    return port_.errorString();
}

QString SerialDevice::settingsNote() const {
    return settings_.rs485.enabled ? Rs485Text(rs485InForce_) : QString();
}
