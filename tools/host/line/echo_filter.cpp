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
    spoiled_ = false;
}

std::optional<FrameKind> EchoFilter::screen(const QByteArray &frame) {
    if (mode_ == EchoMode::Off) return {};
    if (echoDue_) {
        echoDue_ = false;
        if (frame == request_) return FrameKind::Echo;
        // A collision on the bus or a broken adapter: what the slave heard is not known.
        spoiled_ = true;
        return FrameKind::BadEcho;
    }
    if (finding_ != EchoFinding::Unknown) return {};
    return screenWhileUnsure(frame);
}

// The first frame of an exchange tells: a copy of a read (or of a write of several values)
// can only be its echo, since no answer has the request's shape; an answer or an exception
// first means nothing is echoed. A copy of a single write is its acknowledgement as well as its
// echo: it is set aside until a second copy or an exception reply shows it was the echo.
std::optional<FrameKind> EchoFilter::screenWhileUnsure(const QByteArray &frame) {
    if (frame == request_) {
        if (ClassifyReply(request_, frame) != FrameKind::Answer) {
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
        finding_ = possibleEchoSeen_ ? EchoFinding::Present : EchoFinding::Absent;
    }
    return {};
}
