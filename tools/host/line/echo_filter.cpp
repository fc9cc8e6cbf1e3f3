// SPDX-License-Identifier: MIT
// Removal and detection of the adapter's local echo.
#include "echo_filter.h"

namespace {

bool IsSingleWrite(int function) {
    return function == 5 || function == 6;
}

// A frame of the bytes: ':', two upper-case hex digits each, the LRC (the two's complement of
// the byte sum), CR LF.
QByteArray EncodeFrame(const QByteArray &bytes) {
    unsigned sum = 0;
    for (char byte : bytes) sum += static_cast<unsigned char>(byte);
    QByteArray withLrc = bytes;
    withLrc.append(static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF));
    return ':' + withLrc.toHex().toUpper() + "\r\n";
}

}  // namespace

QByteArray EchoProbeFor(const QByteArray &write) {
    const std::optional<RequestHead> head = ParseRequest(write);
    if (!head || !IsSingleWrite(head->function)) return {};
    const char bytes[] = {static_cast<char>(head->station),
                          static_cast<char>(head->function == 5 ? 1 : 3),
                          static_cast<char>(head->address >> 8),
                          static_cast<char>(head->address & 0xFF),
                          0,
                          1};
    return EncodeFrame(QByteArray(bytes, sizeof bytes));
}

const char *EchoModeName(EchoMode mode) {
    switch (mode) {
        case EchoMode::Auto:
            return "auto";
        case EchoMode::On:
            return "on";
        case EchoMode::Off:
            return "off";
    }
    return "unknown";
}

const char *EchoFindingName(EchoFinding finding) {
    switch (finding) {
        case EchoFinding::Unknown:
            return "unknown";
        case EchoFinding::Present:
            return "present";
        case EchoFinding::Absent:
            return "absent";
    }
    return "unknown";
}

EchoFilter::EchoFilter(EchoMode mode)
    : mode_(mode), finding_(mode == EchoMode::On ? EchoFinding::Present : EchoFinding::Unknown) {}

bool EchoFilter::wantsProbe(const QByteArray &request) const {
    if (mode_ != EchoMode::Auto || finding_ != EchoFinding::Unknown) return false;
    const std::optional<RequestHead> head = ParseRequest(request);
    return head && head->station != 0 && IsSingleWrite(head->function);
}

void EchoFilter::startExchange(const QByteArray &request) {
    request_ = request;
    echoDue_ = mode_ != EchoMode::Off && finding_ == EchoFinding::Present;
    possibleEchoSeen_ = false;
    frameSeen_ = false;
    spoiled_ = false;
}

std::optional<FrameKind> EchoFilter::screen(const QByteArray &frame) {
    if (mode_ == EchoMode::Off) return {};
    if (echoDue_) return screenDueEcho(frame);
    if (mode_ == EchoMode::Auto && finding_ == EchoFinding::Absent && isOnlyEcho(frame)) {
        finding_ = EchoFinding::Unknown;  // the adapter echoes after all
    }
    if (finding_ != EchoFinding::Unknown) return {};
    return screenWhileUnsure(frame);
}

// The first frame must be the request's echo. In auto mode a good answer in its place shows
// that the adapter no longer echoes (or lost this echo): the finding is open again.
std::optional<FrameKind> EchoFilter::screenDueEcho(const QByteArray &frame) {
    echoDue_ = false;
    if (frame == request_) return FrameKind::Echo;
    if (mode_ == EchoMode::Auto && IsHandedToDriver(ClassifyReply(request_, frame))) {
        finding_ = EchoFinding::Unknown;
        return {};
    }
    // A collision on the bus or a broken adapter: what the slave heard is not known.
    spoiled_ = true;
    return FrameKind::BadEcho;
}

// A copy of the request that cannot be its answer: a read or a write of several values, whose
// answers never have the request's shape.
bool EchoFilter::isOnlyEcho(const QByteArray &frame) const {
    return frame == request_ && ClassifyReply(request_, frame) != FrameKind::Answer;
}

// Until the line has told, each exchange's frames are read for evidence: a copy of a read (or of
// a write of several values) can only be its echo; an answer that comes first, with nothing
// before it, means nothing is echoed. An answer after anything else (a spoilt frame may have
// been the echo) tells nothing. A copy of a single write is its acknowledgement as well as its
// echo: it is set aside until a second copy or an exception reply shows it was the echo.
std::optional<FrameKind> EchoFilter::screenWhileUnsure(const QByteArray &frame) {
    const bool first = !frameSeen_;
    frameSeen_ = true;
    if (frame == request_) {
        if (isOnlyEcho(frame)) {
            finding_ = EchoFinding::Present;
            return FrameKind::Echo;
        }
        if (!possibleEchoSeen_) {
            possibleEchoSeen_ = true;
            return FrameKind::PossibleEcho;
        }
        finding_ = EchoFinding::Present;
        return {};
    }
    if (IsHandedToDriver(ClassifyReply(request_, frame))) {
        if (possibleEchoSeen_) {
            finding_ = EchoFinding::Present;
        } else if (first) {
            finding_ = EchoFinding::Absent;
        }
    }
    return {};
}
