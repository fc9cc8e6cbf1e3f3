// SPDX-License-Identifier: MIT
// The harness's own reading of Modbus ASCII frames, and its checks of every frame handed out.
#include "frame_check.h"

#include <QLatin1String>
#include <cstdio>
#include <cstdlib>

#include "test_responder.h"

namespace fuzz {
namespace {

constexpr int kReplyOverhead = 11;  // ':' station function count ... LRC CR LF
constexpr int kEchoLength = 17;

unsigned int word(const std::vector<uint8_t> &bytes, size_t at) {
    return static_cast<unsigned int>(bytes[at]) << 8 | bytes[at + 1];
}

unsigned int low16(long long value) {
    return static_cast<unsigned int>(value) & 0xFFFFu;
}

uint8_t valueByte(const QByteArray &value, long long index) {
    return index < value.size() ? static_cast<uint8_t>(value.at(static_cast<int>(index))) : 0;
}

// What a frame must hold besides its header: function code, address and quantity fields,
// data bytes and the reply expected.
struct Expected {
    unsigned int function;
    unsigned int address;
    unsigned int field;  // quantity, or the value of a single write
    bool checkField;
    std::vector<uint8_t> data;  // function 16 only: byte count and register bytes
    int replyLength;
    int replyDataLength;
};

Expected expectRead(const RW_VAR &var) {
    const bool bits = IsBitArea(var.area);
    unsigned int function = 1;
    if (var.area == QLatin1String("1x")) function = 2;
    if (!bits && TableOfArea(var.area) == 2) function = 4;
    if (!bits && TableOfArea(var.area) == 3) function = 3;
    const unsigned int chars = bits ? 2u : 4u;
    const unsigned int dataLength = chars * static_cast<unsigned int>(var.count);
    const unsigned int quantity = bits ? static_cast<unsigned int>(var.count) * 8u : var.count;
    return {function,
            low16(var.address),
            quantity & 0xFFFFu,
            true,
            {},
            static_cast<int>(kReplyOverhead + dataLength),
            static_cast<int>(dataLength)};
}

// Function-16 data: "4x" registers low byte first in value, every other area 32-bit values
// least significant byte first, more significant register first; zeros where value ends.
std::vector<uint8_t> expectMultipleData(const RW_VAR &var) {
    std::vector<uint8_t> data{static_cast<uint8_t>((static_cast<unsigned int>(var.count) * 2u))};
    if (var.count <= 0) return data;
    const int registers = var.count;
    const bool plain = var.area == QLatin1String("4x");
    for (long long r = 0; r < registers; ++r) {
        if (plain) {
            const bool covered = 2 * r + 1 < var.value.size();
            data.push_back(covered ? valueByte(var.value, 2 * r + 1) : 0);
            data.push_back(covered ? valueByte(var.value, 2 * r) : 0);
            continue;
        }
        const long long pair = r / 2;
        const bool covered = pair < registers / 2 && 4 * pair + 3 < var.value.size();
        const long long high = r % 2 == 0 ? 4 * pair + 3 : 4 * pair + 1;
        data.push_back(covered ? valueByte(var.value, high) : 0);
        data.push_back(covered ? valueByte(var.value, high - 1) : 0);
    }
    return data;
}

Expected expectWrite(const RW_VAR &var) {
    if (var.area == QLatin1String("0x")) {
        const bool on = !var.value.isEmpty() && var.value.at(0) == 1;
        return {5, low16(var.address), on ? 0xFF00u : 0u, true, {}, kEchoLength, 0};
    }
    if (var.area == QLatin1String("4x_bit")) {
        // The read half carries the register number, the write half the bit address; the
        // write half's value is checked against the read reply by the poll loop.
        if (var.bitWriteMark == -1) return {3, low16(var.address), 1, true, {}, 15, 4};
        return {6, low16(var.address / 16), 0, false, {}, kEchoLength, 0};
    }
    if (var.count == 1) {
        const unsigned int value =
            var.value.size() >= 2 ? valueByte(var.value, 1) << 8 | valueByte(var.value, 0) : 0;
        return {6, low16(var.address), value, true, {}, kEchoLength, 0};
    }
    return {16, low16(var.address), low16(var.count), true, expectMultipleData(var), kEchoLength,
            0};
}

}  // namespace

void Fail(const char *what) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

int TableOfArea(const QString &area) {
    static const char *const kTables[][3] = {{"0x", "0x", "0x"},
                                             {"1x", "1x", "1x"},
                                             {"3x", "3x_bit", "3x_double"},
                                             {"4x", "4x_bit", "4x_double"}};
    for (int table = 0; table < 4; ++table) {
        for (const char *name : kTables[table]) {
            if (area == QLatin1String(name)) return table;
        }
    }
    return -1;
}

bool IsBitArea(const QString &area) {
    return area == QLatin1String("0x") || area == QLatin1String("1x");
}

bool Decode(const QByteArray &frame, std::vector<uint8_t> &bytes) {
    bytes.clear();
    if (frame.size() < 5 || frame.at(0) != ':' || !frame.endsWith("\r\n")) return false;
    const int hexChars = frame.size() - 3;
    if (hexChars % 2 != 0) return false;
    const char *text = frame.constData();
    bytes.reserve(hexChars / 2);
    for (int i = 1; i < 1 + hexChars; i += 2) {
        const int high = TestResponder::HexValue(text[i]);
        const int low = TestResponder::HexValue(text[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    return true;
}

unsigned int WrittenRegisterValue(const QByteArray &frame) {
    std::vector<uint8_t> bytes;
    if (!Decode(frame, bytes) || bytes.size() != 7) Fail("a single write frame is malformed");
    return word(bytes, 4);
}

void CheckFrame(const Protocol &protocol, Builder builder) {
    const QByteArray &frame = protocol.frame;
    const RW_VAR &var = protocol.var;
    if (protocol.frameLength != frame.size()) Fail("frameLength differs from the frame");
    std::vector<uint8_t> bytes;
    if (!Decode(frame, bytes)) Fail("a frame is not ':' + upper-case hex + CR LF");
    unsigned int sum = 0;
    for (uint8_t b : bytes) sum += b;
    if ((sum & 0xFFu) != 0) Fail("a frame's LRC is wrong");

    const Expected expected = builder == Builder::Read ? expectRead(var) : expectWrite(var);
    const size_t length = 6 + expected.data.size() + 1;
    if (bytes.size() != length) Fail("a frame has the wrong number of bytes");
    if (bytes[0] != (static_cast<unsigned int>(var.station) & 0xFFu)) Fail("wrong station");
    if (bytes[1] != expected.function) Fail("wrong function code");
    if (word(bytes, 2) != expected.address) Fail("wrong address field");
    if (expected.checkField && word(bytes, 4) != expected.field) Fail("wrong quantity or value");
    if (!std::equal(expected.data.begin(), expected.data.end(), bytes.begin() + 6)) {
        Fail("wrong function-16 data");
    }

    const bool broadcast = var.station == 0;
    if (protocol.replyLength != (broadcast ? 0 : expected.replyLength)) {
        Fail("wrong reply length expected");
    }
    if (protocol.replyDataLength != (broadcast ? 0 : expected.replyDataLength)) {
        Fail("wrong reply data length expected");
    }
}

}  // namespace fuzz
