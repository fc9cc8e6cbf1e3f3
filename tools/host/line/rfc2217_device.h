// SPDX-License-Identifier: MIT
// A serial device server reached through Telnet with the COM-PORT option (RFC 2217): the raw
// connection of TcpDevice, with the line settings sent and their answers checked when it
// opens, and the data passed through the Telnet codec both ways.
#ifndef MODBUS_ASCII_HOST_RFC2217_DEVICE_H
#define MODBUS_ASCII_HOST_RFC2217_DEVICE_H

#include <QDeadlineTimer>

#include "tcp_device.h"
#include "telnet_codec.h"

class Rfc2217Device : public TcpDevice {
public:
    using TcpDevice::TcpDevice;

    bool write(const QByteArray &bytes) override;
    qint64 bytesAvailable() override;
    QByteArray readAll() override;
    bool waitForReadyRead(int milliseconds) override;
    QString settingsNote() const override;

private:
    void greet() override;
    void awaitComPortOption(const QDeadlineTimer &deadline);
    void awaitServer(const QDeadlineTimer &deadline, const QString &awaited);
    QList<ComPortMessage> decodeArrived();

    TelnetCodec codec_;
    QByteArray data_;  // decoded and not read yet
    QString inForce_;
};

#endif  // MODBUS_ASCII_HOST_RFC2217_DEVICE_H
