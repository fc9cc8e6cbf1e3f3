// SPDX-License-Identifier: MIT
// The host's side of the serial line: sends one request frame and collects the frame that
// answers it (the line layer judges every frame that arrives), keeping the line quiet between
// transactions. The same over every device (line_device.h): a serial port, or a serial device
// server on the network.
#ifndef MODBUS_ASCII_HOST_SERIAL_LINK_H
#define MODBUS_ASCII_HOST_SERIAL_LINK_H

#include <QByteArray>
#include <QElapsedTimer>
#include <functional>
#include <memory>

#include "echo_filter.h"
#include "host_options.h"
#include "late_replies.h"
#include "line_device.h"
#include "line_layer.h"

// The port went away during a transaction (a read or write error, the device node gone, the
// connection to a device server closed or dead).
struct PortLost {
    QString reason;
};

class SerialLink {
public:
    // Opens the device --port names; throws ToolError with the device's own reason.
    explicit SerialLink(const SerialSettings &settings);
    // Opens device, which the settings' line timing applies to.
    SerialLink(const SerialSettings &settings, std::unique_ptr<LineDevice> device);

    // Closes the device and opens it again; false when it cannot.
    bool reopen();
    // "serial port /dev/ttyS1", "connection tcp://10.0.0.5:4001".
    QString portName() const { return device_->name(); }
    // What --verbose says about the line settings in force; may be empty.
    QString settingsNote() const { return device_->settingsNote(); }

    // Sets aside what is left over on the line, sends frame and, when a reply is expected,
    // waits for the frame that answers it until the time-out. Without an answer it then waits
    // for the line to fall quiet, so that a late reply cannot meet the next request.
    // Every wait also ends within kStopCheckMs once stopCheck says so; the exchange is then
    // marked interrupted.
    Exchange exchange(const QByteArray &frame, bool replyExpected);
    const EchoFilter &echo() const { return echo_; }
    const LateReplyGuard &lateReplies() const { return late_; }

    // What ends every wait early (by default a stop signal, StopRequested).
    void setStopCheck(std::function<bool()> stopCheck) { stopCheck_ = std::move(stopCheck); }
    static constexpr int kStopCheckMs = 50;

private:
    void send(const QByteArray &frame);
    void holdForOwedReplies(const QByteArray &frame, Exchange &exchange);
    void probeEcho(const QByteArray &write);
    void setAside(FrameKind kind, const QByteArray &piece, Exchange &exchange);
    void setAsideAsLate(const QList<QByteArray> &pieces, Exchange &exchange);
    void noteOutcome(const QByteArray &frame, qint64 sentMs, const Exchange &exchange);
    void receiveAnswer(const QByteArray &frame, Exchange &exchange);
    void waitForQuietLine(Exchange &exchange);
    void setAsideLeftovers(Exchange &exchange);
    void setAsideBroadcastEcho(Exchange &exchange);
    bool waitForCharacters(int milliseconds);
    void pause(int milliseconds);
    bool stopping();
    int longestFrameMs() const;
    void checkPort();
    [[noreturn]] void lose();

    SerialSettings settings_;
    std::unique_ptr<LineDevice> device_;
    FrameAssembler assembler_;
    std::function<bool()> stopCheck_;
    bool interrupted_ = false;  // the exchange in progress was cut short by stopCheck_
    EchoFilter echo_;
    QElapsedTimer clock_;  // for the lateness of replies
    LateReplyGuard late_;
    bool brokenReplySeen_ = false;  // a spoilt frame that no owed reply accounts for
};

#endif  // MODBUS_ASCII_HOST_SERIAL_LINK_H
