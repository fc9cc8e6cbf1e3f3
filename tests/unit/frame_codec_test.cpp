// SPDX-License-Identifier: MIT
// The Modbus ASCII codec: LRC, frame encoding, the tolerant digit rule for reply characters
// and the LRC check of a received reply. Every expected frame and LRC below was worked out
// by hand from the binary bytes of its row (sum the bytes, take 0x100 minus the low byte).
#include <gtest/gtest.h>

#include <QByteArray>
#include <initializer_list>
#include <string>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

// A test row name made from an expected frame: the characters between ':' and CR LF.
std::string FrameRowName(const char *frame, const char *suffix = "") {
    std::string name;
    for (const char *c = frame; *c != '\0'; ++c) {
        const unsigned char u = static_cast<unsigned char>(*c);
        if ((u >= '0' && u <= '9') || (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z')) {
            name += *c;
        } else if (u >= 0x80) {
            name += "x";
        }
    }
    if (name.empty()) name = "empty";
    return name + suffix;
}

// ---- LRC of binary bytes ----------------------------------------------------------------

struct LrcRow {
    const char *name;
    std::initializer_list<int> bytes;
    unsigned int lrc;
};

class LrcOfBinaryBytes : public ::testing::TestWithParam<LrcRow> {};

TEST_P(LrcOfBinaryBytes, IsTwosComplementOfTheByteSum) {
    const LrcRow &row = GetParam();
    EXPECT_EQ(ComputeLrc(Bytes(row.bytes)), row.lrc);
}

// A sum whose low byte is 0 gives 256: both its hex digits are '0'.
const LrcRow kLrcRows[] = {
    {"ReadOneHoldingRegister_FB", {0x01, 0x03, 0x00, 0x00, 0x00, 0x01}, 0xFB},
    {"ReadSixteenCoils_EE", {0x01, 0x01, 0x00, 0x00, 0x00, 0x10}, 0xEE},
    {"Station11ReadThreeRegisters_7E", {0x11, 0x03, 0x00, 0x6B, 0x00, 0x03}, 0x7E},
    {"SingleByte01_FF", {0x01}, 0xFF},
    {"SingleByteFF_01", {0xFF}, 0x01},
    {"SingleByte80_80", {0x80}, 0x80},
    {"SumExactly256_Is256", {0xFF, 0x01}, 256},
    {"SumExactly512_Is256", {0xFF, 0xFF, 0x02}, 256},
    {"TwoHighBytesSum256_Is256", {0x80, 0x80}, 256},
    {"HighBytesCountUnsigned_03", {0xFF, 0xFF, 0xFF}, 0x03},
    {"NoBytes_Is256", {}, 256},
};

INSTANTIATE_TEST_SUITE_P(Codec, LrcOfBinaryBytes, ::testing::ValuesIn(kLrcRows),
                         [](const ::testing::TestParamInfo<LrcRow> &info) {
                             return std::string(info.param.name);
                         });

// ---- Frames from binary bytes ------------------------------------------------------------

struct EncodeRow {
    std::initializer_list<int> bytes;
    const char *frame;
};

class EncodedFrame : public ::testing::TestWithParam<EncodeRow> {};

TEST_P(EncodedFrame, IsColonHexDigitsLrcCrLf) {
    const EncodeRow &row = GetParam();
    const QByteArray frame = EncodeFrame(Bytes(row.bytes));
    EXPECT_EQ(frame, QByteArray(row.frame));
    EXPECT_EQ(frame.size(), 1 + 2 * static_cast<int>(row.bytes.size()) + 4);
}

const EncodeRow kEncodeRows[] = {
    {{0x01, 0x03, 0x00, 0x00, 0x00, 0x01}, ":010300000001FB\r\n"},
    {{0x01, 0x01, 0x00, 0x00, 0x00, 0x10}, ":010100000010EE\r\n"},
    {{0x11, 0x03, 0x00, 0x6B, 0x00, 0x03}, ":1103006B00037E\r\n"},
    {{0x11, 0x02, 0x00, 0xC4, 0x00, 0x18}, ":110200C4001811\r\n"},
    {{0xF7, 0x03, 0x23, 0x45, 0x00, 0x01}, ":F703234500019D\r\n"},
    {{0xFC, 0x03, 0x00, 0x00, 0x00, 0x01}, ":FC030000000100\r\n"},
    {{0xFF, 0x01, 0x00, 0x00, 0x00, 0x00}, ":FF010000000000\r\n"},
    {{0x01, 0x10, 0x00, 0x01, 0x00, 0x02, 0x04, 0x00, 0x0A, 0x01, 0x02},
     ":01100001000204000A0102DB\r\n"},
    {{0xAB, 0xCD, 0xEF}, ":ABCDEF99\r\n"},
    {{0x0A, 0xF0}, ":0AF006\r\n"},
    {{}, ":00\r\n"},
};

INSTANTIATE_TEST_SUITE_P(Codec, EncodedFrame, ::testing::ValuesIn(kEncodeRows),
                         [](const ::testing::TestParamInfo<EncodeRow> &info) {
                             return FrameRowName(info.param.frame);
                         });

TEST(HexByteDigits, AreUpperCaseOfTheLowEightBits) {
    QByteArray text(":");
    AppendHexByte(text, 0x1F7);
    AppendHexByte(text, 0x0A);
    AppendHexByte(text, 0x00);
    AppendHexByte(text, 0xFF);
    AppendHexByte(text, 0xC3);
    AppendHexByte(text, 0x100);
    EXPECT_EQ(text, QByteArray(":F70A00FFC300"));
}

// ---- Reply characters: the tolerant digit rule ---------------------------------------------

struct DigitRow {
    const char *name;
    unsigned char character;
    int value;
};

class ReplyDigitValue : public ::testing::TestWithParam<DigitRow> {};

TEST_P(ReplyDigitValue, FollowsTheTolerantRule) {
    EXPECT_EQ(DigitValue(GetParam().character), GetParam().value);
}

const DigitRow kDigitRows[] = {
    {"Nul_0", 0x00, 0},      {"Space_0", ' ', 0},       {"Slash_0", '/', 0},
    {"Zero_0", '0', 0},      {"Five_5", '5', 5},        {"Nine_9", '9', 9},
    {"Colon_10", ':', 10},   {"Semicolon_11", ';', 11}, {"Less_12", '<', 12},
    {"Equals_13", '=', 13},  {"Greater_14", '>', 14},   {"Question_15", '?', 15},
    {"At_0", '@', 0},        {"UpperA_10", 'A', 10},    {"UpperC_12", 'C', 12},
    {"UpperF_15", 'F', 15},  {"UpperG_16", 'G', 16},    {"UpperZ_35", 'Z', 35},
    {"LowerA_42", 'a', 42},  {"LowerB_43", 'b', 43},    {"LowerF_47", 'f', 47},
    {"Byte80_73", 0x80, 73}, {"ByteB0_121", 0xB0, 121}, {"ByteFF_200", 0xFF, 200},
};

INSTANTIATE_TEST_SUITE_P(Codec, ReplyDigitValue, ::testing::ValuesIn(kDigitRows),
                         [](const ::testing::TestParamInfo<DigitRow> &info) {
                             return std::string(info.param.name);
                         });

struct DataByteRow {
    const char *name;
    unsigned char high;
    unsigned char low;
    int byte;
};

class ReplyDataByte : public ::testing::TestWithParam<DataByteRow> {};

TEST_P(ReplyDataByte, MasksEachDigitToANibble) {
    const DataByteRow &row = GetParam();
    EXPECT_EQ(DecodeDataByte(row.high, row.low), row.byte);
}

const DataByteRow kDataByteRows[] = {
    {"Chars00_00", '0', '0', 0x00},         {"Chars12_12", '1', '2', 0x12},
    {"Chars99_99", '9', '9', 0x99},         {"CharsFB_FB", 'F', 'B', 0xFB},
    {"CharsA0_A0", 'A', '0', 0xA0},         {"LowerCasefb_FB", 'f', 'b', 0xFB},
    {"LowerCaseac_AC", 'a', 'c', 0xAC},     {"ColonSemicolon_AB", ':', ';', 0xAB},
    {"QuestionGreater_FE", '?', '>', 0xFE}, {"AtAt_00", '@', '@', 0x00},
    {"SpaceSlash_00", ' ', '/', 0x00},      {"UpperGG_00", 'G', 'G', 0x00},
    {"UpperHZ_13", 'H', 'Z', 0x13},         {"Bytes80FF_98", 0x80, 0xFF, 0x98},
    {"BytesB0B0_99", 0xB0, 0xB0, 0x99},
};

INSTANTIATE_TEST_SUITE_P(Codec, ReplyDataByte, ::testing::ValuesIn(kDataByteRows),
                         [](const ::testing::TestParamInfo<DataByteRow> &info) {
                             return std::string(info.param.name);
                         });

struct RegisterRow {
    const char *reply;
    int first;
    int value;
};

class ReplyRegister : public ::testing::TestWithParam<RegisterRow> {};

TEST_P(ReplyRegister, IsFourDigitsMostSignificantFirst) {
    const RegisterRow &row = GetParam();
    EXPECT_EQ(DecodeRegister(QByteArray(row.reply), row.first), row.value);
}

const RegisterRow kRegisterRows[] = {
    {":0103021234B4\r\n", 7, 0x1234}, {":010302ABCD82\r\n", 7, 0xABCD},
    {":010302abcd82\r\n", 7, 0xABCD}, {":010302FFFFFC\r\n", 7, 0xFFFF},
    {":010302:;<=82\r\n", 7, 0xABCD}, {":010302G@/0FA\r\n", 7, 0x0000},
};

INSTANTIATE_TEST_SUITE_P(Codec, ReplyRegister, ::testing::ValuesIn(kRegisterRows),
                         [](const ::testing::TestParamInfo<RegisterRow> &info) {
                             return FrameRowName(info.param.reply);
                         });

// ---- LRC check of a received reply --------------------------------------------------------

struct LrcCheckRow {
    const char *reply;
    bool matches;
    const char *suffix;
};

class ReplyLrcCheck : public ::testing::TestWithParam<LrcCheckRow> {};

TEST_P(ReplyLrcCheck, ComparesBothLrcDigits) {
    const QByteArray reply(GetParam().reply);
    EXPECT_EQ(ReplyLrcMatches(reply, reply.size()), GetParam().matches);
}

const LrcCheckRow kLrcCheckRows[] = {
    // One holding register 0x000A.
    {":010302000AF0\r\n", true, ""},
    {":010302000AF1\r\n", false, ""},
    {":010302000BF0\r\n", false, ""},
    // One byte of discrete inputs: LRC FB.
    {":01020101FB\r\n", true, ""},
    // The same reply with its LRC in lower case: the value is right, the check fails.
    {":01020101fb\r\n", false, "_lowerCaseLrc"},
    {":01020101Fb\r\n", false, "_lowerCaseLowDigit"},
    {":01020101fB\r\n", false, "_lowerCaseHighDigit"},
    // Lower-case data digits decode like upper case.
    {":0103020a0bE5\r\n", true, "_lowerCaseData"},
    // ':' to '?' count as 10 to 15, also in the LRC.
    {":01020101?;\r\n", true, "_punctuationLrc"},
    // 'G' in the low digit of a data byte counts as 0.
    {":0103020G00FA\r\n", true, ""},
    // Characters from 0x80 up are taken unsigned: 0xB0 0xB0 decode as the byte 0x99.
    {":010302\xB0\xB0"
     "0061\r\n",
     true, "_highCharacters"},
    // CR and LF are not examined.
    {":010302000AF0XY", true, "_noCrLf"},
    // No binary bytes at all: the LRC is 0.
    {":00\r\n", true, "_noBytes"},
    {":01\r\n", false, "_noBytes"},
    {":0000\r\n", true, "_oneZeroByte"},
};

INSTANTIATE_TEST_SUITE_P(Codec, ReplyLrcCheck, ::testing::ValuesIn(kLrcCheckRows),
                         [](const ::testing::TestParamInfo<LrcCheckRow> &info) {
                             return FrameRowName(info.param.reply, info.param.suffix);
                         });

TEST(ReplyLrcCheckLength, UsesTheGivenLengthNotTheArraySize) {
    // The first 13 characters hold a complete one-byte reply; the rest is ignored.
    const QByteArray reply(":01020101FB\r\nJUNK");
    EXPECT_TRUE(ReplyLrcMatches(reply, 13));
    EXPECT_FALSE(ReplyLrcMatches(reply, reply.size()));
}

// A length past the reply reads '\0' there, whose digit is 0. Two characters more take in the
// LRC byte B4 (the bytes then sum to 0x100, whose LRC digits are "00") and compare CR and LF as
// the digits; one character more compares '4' and CR with B and 4.
TEST(ReplyLrcCheckLength, ALengthPastTheReplyReadsZeroDigitsThere) {
    const QByteArray reply(":0103021234B4\r\n");
    EXPECT_TRUE(ReplyLrcMatches(reply, 17));
    EXPECT_FALSE(ReplyLrcMatches(reply, 16));
    // 01 + FF + a missing byte (00) sum to 0x100; the missing LRC characters read as "00".
    EXPECT_TRUE(ReplyLrcMatches(QByteArray(":01FF"), 11));
    EXPECT_FALSE(ReplyLrcMatches(QByteArray(":01FE"), 11));
}

TEST(ReplyLrcCheckLength, EmptyReplyCarriesNoLrcToMatch) {
    EXPECT_FALSE(ReplyLrcMatches(QByteArray(), 0));
}

TEST(ReplyLrcCheckLength, SlaveReplyHelperAgreesWithHandWrittenFrames) {
    EXPECT_EQ(SlaveReply("010302000A"), QByteArray(":010302000AF0\r\n"));
    EXPECT_EQ(SlaveReply("01020101"), QByteArray(":01020101FB\r\n"));
    const QByteArray reply = SlaveReply("0103041234ABCD");
    EXPECT_EQ(reply, QByteArray(":0103041234ABCD3A\r\n"));
    EXPECT_TRUE(ReplyLrcMatches(reply, reply.size()));
}

TEST(ReplyRegisterOutside, DigitsOutsideTheReplyReadAsZero) {
    EXPECT_EQ(DecodeRegister(QByteArray(":0103"), 3), 0x0300);
    // Before the reply '\0' (0), then ':' (10), '0' and '1'.
    EXPECT_EQ(DecodeRegister(QByteArray(":0103021234B4\r\n"), -1), 0x0A01);
}

}  // namespace
