// SPDX-License-Identifier: MIT
// A serial port as the link's device: opened and set to the line settings (and RS-485 mode,
// which only a port of this board has), and what the system says when it goes away.
#ifndef MODBUS_ASCII_HOST_SERIAL_DEVICE_H
#define MODBUS_ASCII_HOST_SERIAL_DEVICE_H

#include <QSerialPort>

#include "line_device.h"

class SerialDevice : public LineDevice {
public:
    explicit SerialDevice(const SerialSettings &settings);

    QString name() const override;
    void open() override;
    void close() override { port_.close(); }
    bool write(const QByteArray &bytes) override;
    qint64 bytesToWrite() const override { return port_.bytesToWrite(); }
    bool waitForBytesWritten(int milliseconds) override;
    qint64 bytesAvailable() override { return port_.bytesAvailable(); }
    QByteArray readAll() override { return port_.readAll(); }
    bool waitForReadyRead(int milliseconds) override;
    bool lost() override;
    QString lostReason() override;
    QString settingsNote() const override;

private:
    void configure();
    [[noreturn]] void fail(const QString &what);

    SerialSettings settings_;
    QSerialPort port_;
    Rs485Settings rs485InForce_;
};

#endif  // MODBUS_ASCII_HOST_SERIAL_DEVICE_H
