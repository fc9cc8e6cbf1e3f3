// SPDX-License-Identifier: MIT
// Reading reply characters: the tolerant digit rule, data bytes and registers, and the LRC check.
#include <QByteArray>

#include "driver_internal.h"

namespace {

// Below this many characters a loop of table look-ups beats setting up a vector loop.
constexpr int kShortText = 32;

// The sums of the data bytes whose characters are the count characters at text. A short text
// is summed by table; a long one in 8-bit lanes, which vectorise (the LRC needs only the low
// byte of the sum), out of line so that its set-up stays off the short path.
unsigned int sumOfShortText(const unsigned char *text, int count) {
    unsigned int sum = 0;
    for (int i = 0; i + 1 < count; i += 2) {
        sum += DataByteFromDigits(reinterpret_cast<const char *>(text) + i);
    }
    return sum & 0xFFu;
}
__attribute__((noinline)) unsigned int sumOfLongText(const unsigned char *text, int count) {
    unsigned char high = 0;
    unsigned char low = 0;
    for (int i = 0; i + 1 < count; i += 2) {
        high = static_cast<unsigned char>(high + (DigitOf(text[i]) & 0x0Fu));
        low = static_cast<unsigned char>(low + (DigitOf(text[i + 1]) & 0x0Fu));
    }
    return (high * 16u + low) & 0xFFu;
}
unsigned int sumOfDataBytes(const unsigned char *text, int count) {
    return count < kShortText ? sumOfShortText(text, count) : sumOfLongText(text, count);
}

// ReplyLrcMatches for the usual reply, every character of which lies inside it.
bool lrcMatchesInside(const char *reply, int length, int byteCount) {
    const auto *text = reinterpret_cast<const unsigned char *>(reply);
    const unsigned int lrc = LrcOfSum(sumOfDataBytes(text + 1, 2 * qMax(byteCount, 0)));
    return DigitOf(text[length - 4]) == ((lrc >> 4) & 0x0Fu) &&
           DigitOf(text[length - 3]) == (lrc & 0x0Fu);
}

// ReplyLrcMatches for a length that reaches past the reply, which reads '\0' there. Out of
// line, so that the usual reply does not pay for its set-up.
__attribute__((noinline)) bool lrcMatchesBeyond(const QByteArray &reply, int length,
                                                int byteCount) {
    // Bytes whose both characters lie inside the reply.
    const int insideCount = qBound(0, (reply.size() - 1) / 2, qMax(byteCount, 0));
    unsigned int sum = sumOfDataBytes(
        reinterpret_cast<const unsigned char *>(reply.constData()) + 1, 2 * insideCount);
    for (int i = insideCount; i < byteCount; ++i) {
        sum += DecodeDataByte(ReplyCharAt(reply, 1 + 2 * i), ReplyCharAt(reply, 2 + 2 * i));
    }
    const unsigned int lrc = LrcOfSum(sum);  // no bytes: 256, whose digits are "00"
    return DigitValue(ReplyCharAt(reply, length - 4)) == static_cast<int>((lrc >> 4) & 0x0F) &&
           DigitValue(ReplyCharAt(reply, length - 3)) == static_cast<int>(lrc & 0x0F);
}

}  // namespace

int DigitValue(unsigned char c) {
    return static_cast<int>(DigitOf(c));
}

unsigned char ReplyCharAt(const QByteArray &reply, int index) {
    if (index < 0 || index >= reply.size()) return 0;
    return static_cast<unsigned char>(reply.at(index));
}

unsigned char DecodeDataByte(unsigned char high, unsigned char low) {
    return static_cast<unsigned char>(((DigitValue(high) * 16) & 0xF0) + (DigitValue(low) & 0x0F));
}

unsigned short DecodeRegister(const QByteArray &reply, int first) {
    if (first >= 0 && first <= reply.size() - 4)
        return RegisterFromDigits(reply.constData() + first);
    unsigned int value = 0;
    for (int i = 0; i < 4; ++i) {
        value = (value << 4) | (DigitValue(ReplyCharAt(reply, first + i)) & 0x0F);
    }
    return static_cast<unsigned short>(value);
}

// The bytes are summed as their characters are decoded. The LRC characters are compared
// without masking, so lower-case digits there never match.
bool ReplyLrcMatches(const QByteArray &reply, int length) {
    if (length < 4) return false;  // no room for the LRC characters
    const int byteCount = (length - 5) / 2;
    if (length <= reply.size()) return lrcMatchesInside(reply.constData(), length, byteCount);
    return lrcMatchesBeyond(reply, length, byteCount);
}
