// SPDX-License-Identifier: MIT
// Reply matching and frame assembly of the host's line layer.
#include "line_layer.h"

namespace {

// Positions in a decoded frame (the binary bytes between ':' and the LRC).
constexpr int kStation = 0;
constexpr int kFunction = 1;
constexpr int kByteCount = 2;     // reads: number of data bytes that follow
constexpr int kAddressHigh = 2;   // writes and requests
constexpr int kQuantityHigh = 4;  // requests of functions 1 to 4, 15 and 16
constexpr int kExceptionFlag = 0x80;
constexpr int kExceptionSize = 3;  // station, function | 0x80, exception code
constexpr int kWriteReplySize = 6;

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The binary bytes of a frame without its LRC, or nothing when the frame is not ':', an
// even number of hex digits and CR LF, or its LRC (the two's complement of the byte sum)
// does not match.
std::optional<QByteArray> DecodeFrame(const QByteArray &frame) {
    if (frame.size() < 9 || frame.front() != ':' || !frame.endsWith("\r\n")) return {};
    const int digits = frame.size() - 3;
    if (digits % 2 != 0) return {};
    QByteArray bytes;
    for (int i = 1; i < 1 + digits; i += 2) {
        const int high = HexDigit(frame[i]);
        const int low = HexDigit(frame[i + 1]);
        if (high < 0 || low < 0) return {};
        bytes.append(static_cast<char>(high * 16 + low));
    }
    unsigned sum = 0;
    for (char byte : bytes) sum += static_cast<unsigned char>(byte);
    if ((sum & 0xFF) != 0) return {};  // the LRC byte makes the whole sum 0
    bytes.chop(1);
    return bytes;
}

int Byte(const QByteArray &bytes, int index) {
    return static_cast<unsigned char>(bytes[index]);
}

int Word(const QByteArray &bytes, int index) {
    return Byte(bytes, index) * 256 + Byte(bytes, index + 1);
}

// The number of data bytes a read reply carries for the request's quantity.
int ReadByteCount(const QByteArray &request) {
    const int quantity = Word(request, kQuantityHigh);
    return Byte(request, kFunction) <= 2 ? (quantity + 7) / 8 : quantity * 2;
}

FrameKind ClassifyReadReply(const QByteArray &request, const QByteArray &reply) {
    const int byteCount = ReadByteCount(request);
    if (reply.size() != 3 + byteCount || Byte(reply, kByteCount) != byteCount) {
        return FrameKind::WrongLength;
    }
    return FrameKind::Answer;
}

// Functions 5 and 6 answer with an echo of the request.
FrameKind ClassifyEchoReply(const QByteArray &request, const QByteArray &reply) {
    if (reply.size() != request.size()) return FrameKind::WrongLength;
    return reply == request ? FrameKind::Answer : FrameKind::OtherRequest;
}

// Functions 15 and 16 answer with the address and quantity of the request.
FrameKind ClassifyMultipleWriteReply(const QByteArray &request, const QByteArray &reply) {
    if (reply.size() != kWriteReplySize) return FrameKind::WrongLength;
    return reply.left(kWriteReplySize) == request.left(kWriteReplySize) ? FrameKind::Answer
                                                                        : FrameKind::OtherRequest;
}

FrameKind ClassifyByFunction(const QByteArray &request, const QByteArray &reply) {
    switch (Byte(request, kFunction)) {
        case 1:
        case 2:
        case 3:
        case 4:
            return ClassifyReadReply(request, reply);
        case 5:
        case 6:
            return ClassifyEchoReply(request, reply);
        case 15:
        case 16:
            return ClassifyMultipleWriteReply(request, reply);
        default:
            return FrameKind::OtherRequest;  // the driver sends no other function
    }
}

}  // namespace

const char *FrameKindName(FrameKind kind) {
    switch (kind) {
        case FrameKind::Answer:
            return "answer";
        case FrameKind::Exception:
            return "exception";
        case FrameKind::Garbled:
            return "garbled";
        case FrameKind::OtherStation:
            return "other station";
        case FrameKind::OtherFunction:
            return "other function";
        case FrameKind::WrongLength:
            return "wrong length";
        case FrameKind::OtherRequest:
            return "other request";
        case FrameKind::Late:
            return "late";
        case FrameKind::Echo:
            return "echo";
        case FrameKind::BadEcho:
            return "differing echo";
        case FrameKind::PossibleEcho:
            return "possible echo";
    }
    return "unknown";
}

FrameKind ClassifyReply(const QByteArray &request, const QByteArray &reply) {
    const std::optional<QByteArray> sent = DecodeFrame(request);
    const std::optional<QByteArray> received = DecodeFrame(reply);
    if (!received || received->size() < kExceptionSize) return FrameKind::Garbled;
    if (!sent || sent->size() < kWriteReplySize) return FrameKind::OtherRequest;
    if (Byte(*received, kStation) != Byte(*sent, kStation)) return FrameKind::OtherStation;
    const int function = Byte(*sent, kFunction);
    if (Byte(*received, kFunction) == (function | kExceptionFlag)) {
        return received->size() == kExceptionSize ? FrameKind::Exception : FrameKind::WrongLength;
    }
    if (Byte(*received, kFunction) != function) return FrameKind::OtherFunction;
    return ClassifyByFunction(*sent, *received);
}

std::optional<RequestHead> ParseRequest(const QByteArray &frame) {
    const std::optional<QByteArray> bytes = DecodeFrame(frame);
    if (!bytes || bytes->size() < kWriteReplySize) return {};
    RequestHead head;
    head.station = Byte(*bytes, kStation);
    head.function = Byte(*bytes, kFunction);
    head.address = Word(*bytes, kAddressHigh);
    const bool singleWrite = head.function == 5 || head.function == 6;
    head.quantity = singleWrite ? 1 : Word(*bytes, kQuantityHigh);
    return head;
}

QList<QByteArray> FrameAssembler::feed(const QByteArray &characters) {
    QList<QByteArray> frames;
    for (char c : characters) {
        if (c == ':') {
            if (inFrame()) frames.append(takePartial());
            partial_ = QByteArray(1, c);
        } else if (!inFrame()) {
            ++noiseCharacters_;
        } else {
            partial_.append(c);
            if (c == '\n' || partial_.size() >= kMaxFrameCharacters) frames.append(takePartial());
        }
    }
    return frames;
}

QByteArray FrameAssembler::takePartial() {
    QByteArray piece;
    piece.swap(partial_);
    return piece;
}

int FrameAssembler::takeNoiseCharacters() {
    const int characters = noiseCharacters_;
    noiseCharacters_ = 0;
    return characters;
}
