// SPDX-License-Identifier: MIT
// What the serial link talks through: a serial port, or a connection to a serial device
// server (a raw TCP stream, or Telnet with the COM-PORT option of RFC 2217). Frames, echoes,
// late replies, quiet waits and stops are the link's, the same over every device; a device
// only moves bytes, waits for them and says when it has gone away and why.
#ifndef MODBUS_ASCII_HOST_LINE_DEVICE_H
#define MODBUS_ASCII_HOST_LINE_DEVICE_H

#include <QByteArray>
#include <QString>
#include <memory>

#include "host_options.h"

class LineDevice {
public:
    virtual ~LineDevice() = default;

    // How messages name it: "serial port /dev/ttyS1", "connection tcp://10.0.0.5:4001".
    virtual QString name() const = 0;
    // Opens it, or opens it again after a loss; throws ToolError with the reason.
    virtual void open() = 0;
    virtual void close() = 0;

    // Queues bytes to send; false when the device cannot take them (it is lost).
    virtual bool write(const QByteArray &bytes) = 0;
    virtual qint64 bytesToWrite() const = 0;
    // Waits at most milliseconds for queued bytes to leave; false when none left meanwhile.
    virtual bool waitForBytesWritten(int milliseconds) = 0;

    // Bytes that arrived and are not read yet.
    virtual qint64 bytesAvailable() = 0;
    virtual QByteArray readAll() = 0;
    // Waits at most milliseconds for bytes to read; false after that silence or on a loss.
    virtual bool waitForReadyRead(int milliseconds) = 0;

    // True once the device has gone away: an error other than a wait that ended in silence
    // (which is cleared).
    virtual bool lost() = 0;
    // Why it went away (or cannot take bytes), in the system's words.
    virtual QString lostReason() = 0;
    // What --verbose says about the line settings in force once it is open; may be empty.
    virtual QString settingsNote() const = 0;
};

// The device --port names (see ParseLinkAddress), not opened yet.
std::unique_ptr<LineDevice> MakeLineDevice(const SerialSettings &settings);

#endif  // MODBUS_ASCII_HOST_LINE_DEVICE_H
