// SPDX-License-Identifier: MIT
// The host's line layer: which received frames answer the request in flight, and how the
// characters from the line are cut into frames. The driver checks only a reply's length and
// LRC, so a late reply to another request would pass it; nothing reaches the driver unless
// it answers the frame that was sent.
#ifndef MODBUS_ASCII_HOST_LINE_LAYER_H
#define MODBUS_ASCII_HOST_LINE_LAYER_H

#include <QByteArray>
#include <QList>
#include <optional>

// What a complete frame from the line is, judged against the request in flight.
enum class FrameKind : int {
    Answer = 0,         // answers the request: handed to the driver
    Exception = 1,      // the request's exception form (function | 0x80): handed over as received
    Garbled = 2,        // not a well-formed frame: bad framing, a non-hex digit or a wrong LRC
    OtherStation = 3,   // a good frame from another station
    OtherFunction = 4,  // a good frame of the right station with another function code
    WrongLength = 5,    // right station and function, but a size the request does not allow
    OtherRequest = 6,   // right shape, but it echoes another address, quantity or value
    Late = 7,           // came after the time-out or before a send: belongs to no request
    Echo = 8,           // the adapter's local echo of the request
    BadEcho = 9,        // came where the echo was due but differs from the request sent
    PossibleEcho = 10,  // a copy of a single write while it is unknown whether the line echoes
};
constexpr int kFrameKindCount = 11;

// Short words for a kind, as the trace and the summary show them.
const char *FrameKindName(FrameKind kind);

// Answers and exception replies go to the driver; every other kind is a stray frame.
inline bool IsHandedToDriver(FrameKind kind) {
    return kind == FrameKind::Answer || kind == FrameKind::Exception;
}

// Judges reply, one complete frame from ':' to LF, against request, the frame as it was sent.
FrameKind ClassifyReply(const QByteArray &request, const QByteArray &reply);

// A frame that did not answer the request in flight.
struct StrayFrame {
    FrameKind kind;
    QByteArray frame;
};

// The most stray frames one exchange keeps; the characters of any further ones are counted
// as noise, so that a line that never falls quiet cannot fill the memory.
constexpr int kMaxStrayFramesKept = 64;

// What came back for one request.
struct Exchange {
    QByteArray reply;  // the answer or exception reply handed to the driver; empty on time-out
    FrameKind replyKind = FrameKind::Answer;  // Answer or Exception when reply is not empty
    QList<StrayFrame> strays;        // frames set aside, in arrival order (late ones included)
    int noiseCharacters = 0;         // characters outside any frame, and those of frames not kept
    bool interrupted = false;        // a stop cut the exchange short: nothing in it can be judged
    qint64 lineNanoseconds = 0;      // from the start of sending to the end of the reply
    qint64 responseNanoseconds = 0;  // from the end of sending to the end of the reply
    bool echoFound = false;          // this exchange told whether the adapter echoes
};

// Station, function and the span a request frame covers: address and quantity (1 for the
// single writes of functions 5 and 6).
struct RequestHead {
    int station = 0;
    int function = 0;
    int address = 0;
    int quantity = 0;
};

// The head of a request frame as the driver built it; nothing for a frame that is not one.
std::optional<RequestHead> ParseRequest(const QByteArray &frame);

// Cuts the characters of the line into frames. A frame starts at ':' and ends at LF;
// characters outside a frame are noise. A ':' inside a frame ends the unfinished frame before
// it, which is returned as a broken piece (it has no LF, so it classifies as garbled).
class FrameAssembler {
public:
    // A frame longer than this is cut off and returned as a broken piece: far above the
    // longest Modbus ASCII frame (513 characters).
    static constexpr int kMaxFrameCharacters = 1024;

    // Adds characters; returns the frames and broken pieces they completed, oldest first.
    QList<QByteArray> feed(const QByteArray &characters);
    // True while a frame has started and not ended.
    bool inFrame() const { return !partial_.isEmpty(); }
    // Gives up the unfinished frame (its rest never came) and returns it.
    QByteArray takePartial();
    // Noise characters seen since the last call; resets the count.
    int takeNoiseCharacters();

private:
    QByteArray partial_;
    int noiseCharacters_ = 0;
};

#endif  // MODBUS_ASCII_HOST_LINE_LAYER_H
