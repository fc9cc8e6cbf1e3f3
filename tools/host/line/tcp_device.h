// SPDX-License-Identifier: MIT
// A serial device server's TCP port as the link's device, the line's bytes as a raw stream.
// Connecting is bounded in time; a connection that goes silent without being closed is
// noticed by TCP keep-alive; a server that takes the connection and closes it at once (its
// serial port is in use) has not been opened.
#ifndef MODBUS_ASCII_HOST_TCP_DEVICE_H
#define MODBUS_ASCII_HOST_TCP_DEVICE_H

#include <QHostAddress>
#include <QTcpSocket>

#include "line_device.h"
#include "link_address.h"

class TcpDevice : public LineDevice {
public:
    // Name lookup and connection together take at most this long.
    static constexpr int kConnectTimeoutMs = 3000;
    // A connection that brings nothing back is dropped after this: keep-alive probes every
    // second once it has been idle for 2 s, and at most this long for data sent to be
    // acknowledged (TCP_USER_TIMEOUT, which also ends the probing).
    static constexpr int kKeepAliveIdleS = 2;
    static constexpr int kKeepAliveIntervalS = 1;
    static constexpr int kKeepAliveProbes = 6;
    static constexpr int kDeadConnectionMs = 8000;
    // How long a new connection is watched for the server closing it at once, beyond the
    // link's own delay.
    static constexpr int kBusyCheckMs = 100;

    TcpDevice(const LinkAddress &address, const SerialSettings &settings);
    ~TcpDevice() override;

    QString name() const override;
    void open() override;
    void close() override;
    bool write(const QByteArray &bytes) override;
    qint64 bytesToWrite() const override { return socket_.bytesToWrite(); }
    bool waitForBytesWritten(int milliseconds) override;
    qint64 bytesAvailable() override { return socket_.bytesAvailable(); }
    QByteArray readAll() override { return socket_.readAll(); }
    bool waitForReadyRead(int milliseconds) override;
    bool lost() override;
    QString lostReason() override;
    QString settingsNote() const override;

protected:
    // What follows the connection: for a raw stream, the check that the server keeps it.
    virtual void greet();
    // Ends the open with a ToolError naming --port and why.
    [[noreturn]] void refuse(const QString &why) const;
    // Why the server closed a connection it had just taken, with what it said, if anything.
    QString closedAtOnce();
    const SerialSettings &settings() const { return settings_; }
    bool connected() const { return socket_.state() == QAbstractSocket::ConnectedState; }

private:
    QList<QHostAddress> resolve(int timeoutMs) const;
    void connectSocket();
    void keepAlive();

    LinkAddress address_;
    SerialSettings settings_;
    QTcpSocket socket_;
    QString lossReason_;
};

#endif  // MODBUS_ASCII_HOST_TCP_DEVICE_H
