// The host's side of the serial line: sends one request frame and collects its reply.
#ifndef MODBUS_ASCII_HOST_SERIAL_LINK_H
#define MODBUS_ASCII_HOST_SERIAL_LINK_H

#include <QByteArray>
#include <QSerialPort>

#include "host_options.h"

// What came back for one request.
struct Exchange {
    QByteArray reply;        // up to and including LF; what arrived before a time-out otherwise
    qint64 lineNanoseconds;  // from the start of sending to the end of the reply
};

class SerialLink {
public:
    // Opens and configures the port; throws ToolError with the port's own reason.
    explicit SerialLink(const SerialSettings &settings);

    // Sends frame and, when a reply is expected, collects characters until LF or a time-out.
    Exchange exchange(const QByteArray &frame, bool replyExpected);

private:
    void configure();
    void send(const QByteArray &frame);
    QByteArray receiveReply();
    [[noreturn]] void fail(const QString &what);

    SerialSettings settings_;
    QSerialPort port_;
};

#endif  // MODBUS_ASCII_HOST_SERIAL_LINK_H
