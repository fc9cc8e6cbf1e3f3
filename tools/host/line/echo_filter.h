// SPDX-License-Identifier: MIT
// Local echo of the line: adapters and half-duplex transceivers that hear their own
// transmission send every request back before the slave answers. The filter removes exactly
// that echo, learns whether the adapter echoes (--echo auto) and keeps learning for the whole
// run, and never lets a possible echo of a single write pass as the slave's acknowledgement.
#ifndef MODBUS_ASCII_HOST_ECHO_FILTER_H
#define MODBUS_ASCII_HOST_ECHO_FILTER_H

#include <QByteArray>
#include <optional>

#include "host_options.h"
#include "line_layer.h"

// What the line has shown about local echo.
enum class EchoFinding : int {
    Unknown = 0,  // no transaction has told yet
    Present = 1,  // the adapter echoes every request
    Absent = 2,   // an answer came first: nothing is echoed
};

// A read of the one coil (function 5) or register (function 6) that the single write
// changes, from the same station: its echo can never be its answer. Empty for other frames.
QByteArray EchoProbeFor(const QByteArray &write);

const char *EchoModeName(EchoMode mode);
const char *EchoFindingName(EchoFinding finding);

// Screens the frames of each exchange, before the line layer judges them as replies.
class EchoFilter {
public:
    explicit EchoFilter(EchoMode mode);

    // True when request is a single write to a station while it is unknown whether the
    // adapter echoes: its acknowledgement could not be told from its echo, so a read asks
    // first (see EchoProbeFor).
    bool wantsProbe(const QByteArray &request) const;
    // A request is about to be sent.
    void startExchange(const QByteArray &request);
    // The kind to set frame aside as (an echo, a differing echo, a possible echo), or nothing
    // when it is to be judged as a reply.
    std::optional<FrameKind> screen(const QByteArray &frame);
    // True after a differing echo: the attempt does not count as answered.
    bool attemptSpoiled() const { return spoiled_; }
    EchoMode mode() const { return mode_; }
    EchoFinding finding() const { return finding_; }

private:
    std::optional<FrameKind> screenDueEcho(const QByteArray &frame);
    std::optional<FrameKind> screenWhileUnsure(const QByteArray &frame);
    bool isOnlyEcho(const QByteArray &frame) const;

    EchoMode mode_;
    EchoFinding finding_;
    QByteArray request_;
    bool echoDue_ = false;           // the next frame must be the request's echo
    bool possibleEchoSeen_ = false;  // a copy of a single write came: echo or acknowledgement
    bool frameSeen_ = false;         // a frame of this exchange was screened while unsure
    bool spoiled_ = false;
};

#endif  // MODBUS_ASCII_HOST_ECHO_FILTER_H
