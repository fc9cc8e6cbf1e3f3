// The host's side of the serial line: sends one request frame and collects the frame that
// answers it (the line layer judges every frame that arrives), keeping the line quiet between
// transactions.
#ifndef MODBUS_ASCII_HOST_SERIAL_LINK_H
#define MODBUS_ASCII_HOST_SERIAL_LINK_H

#include <QByteArray>
#include <QList>
#include <QSerialPort>

#include "host_options.h"
#include "line_layer.h"

// A frame that did not answer the request in flight.
struct StrayFrame {
    FrameKind kind;
    QByteArray frame;
};

// What came back for one request.
struct Exchange {
    QByteArray reply;  // the answer or exception reply handed to the driver; empty on time-out
    FrameKind replyKind = FrameKind::Answer;  // Answer or Exception when reply is not empty
    QList<StrayFrame> strays;        // frames set aside, in arrival order (late ones included)
    int noiseCharacters = 0;         // characters outside any frame
    qint64 lineNanoseconds = 0;      // from the start of sending to the end of the reply
    qint64 responseNanoseconds = 0;  // from the end of sending to the end of the reply
};

class SerialLink {
public:
    // Opens and configures the port; throws ToolError with the port's own reason.
    explicit SerialLink(const SerialSettings &settings);

    // Discards what is left over on the line, sends frame and, when a reply is expected,
    // waits for the frame that answers it until the time-out. Without an answer it then waits
    // for the line to fall quiet, so that a late reply cannot meet the next request.
    Exchange exchange(const QByteArray &frame, bool replyExpected);

private:
    void configure();
    void send(const QByteArray &frame);
    void receiveAnswer(const QByteArray &frame, Exchange &exchange);
    void waitForQuietLine(Exchange &exchange);
    void setAsideLeftovers(Exchange &exchange);
    bool waitForCharacters(int milliseconds);
    [[noreturn]] void fail(const QString &what);

    SerialSettings settings_;
    QSerialPort port_;
    FrameAssembler assembler_;
};

#endif  // MODBUS_ASCII_HOST_SERIAL_LINK_H
