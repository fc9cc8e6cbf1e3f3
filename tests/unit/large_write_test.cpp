// SPDX-License-Identifier: MIT
// Register writes of any size, queued by the host and framed by the scheduler: every register
// is carried, the quantity and byte count hold their low 16 and 8 bits, the LRC covers every
// byte. Header, data and LRC characters are written out by hand.
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

struct LargeWriteRow {
    const char *area;
    int count;
    QByteArray value;
    // ':' station, function, address 0x0100, quantity and byte count.
    const char *header;
    // The data characters, count x 4 of them.
    QByteArray data;
    // LRC, CR and LF.
    const char *trailer;
};

// count registers of 0x1234 each, low byte first as the host hands them over.
QByteArray RegistersOf1234(int count) {
    return Bytes({0x34, 0x12}).repeated(count);
}

// count / 2 values of 0x12345678, least significant byte first.
QByteArray DoublesOf12345678(int count) {
    return Bytes({0x78, 0x56, 0x34, 0x12}).repeated(count / 2);
}

// Data sums: "1234" per register adds 0x46, "12345678" per pair adds 0x114; the header bytes
// 01 10 01 00 plus quantity and byte count add the rest. LRC = two's complement of the low byte.
const LargeWriteRow kRows[] = {
    // 0x30E + 65535 x 0x46 = ...C8: LRC 38.
    {"4x", 65535, RegistersOf1234(65535), ":01100100FFFFFE", QByteArray("1234").repeated(65535),
     "38\r\n"},
    // Quantity 0x10000 & 0xFFFF = 0000, byte count 0x20000 & 0xFF = 00; data sum ...00: LRC EE.
    {"4x", 65536, RegistersOf1234(65536), ":01100100000000", QByteArray("1234").repeated(65536),
     "EE\r\n"},
    // Quantity 70000 = 0x11170 gives 1170, byte count 140000 = 0x222E0 gives E0: LRC ED.
    {"4x", 70000, RegistersOf1234(70000), ":011001001170E0", QByteArray("1234").repeated(70000),
     "ED\r\n"},
    // An odd count: 32767 values, the last register gets zeros. LRC 06.
    {"4x_double", 65535, DoublesOf12345678(65535), ":01100100FFFFFE",
     QByteArray("12345678").repeated(32767) + "0000", "06\r\n"},
    {"4x_double", 65536, DoublesOf12345678(65536), ":01100100000000",
     QByteArray("12345678").repeated(32768), "EE\r\n"},
    {"4x_double", 70000, DoublesOf12345678(70000), ":011001001170E0",
     QByteArray("12345678").repeated(35000), "2D\r\n"},
    // A value covering two registers: the other 69,998 are sent as zeros. LRC 79.
    {"4x", 70000, Bytes({0x34, 0x12, 0x78, 0x56}), ":011001001170E0",
     "12345678" + QByteArray("0000").repeated(69998), "79\r\n"},
};

class LargeWriteTest : public DriverTest, public ::testing::WithParamInterface<LargeWriteRow> {};
class LargeWriteQueueTest : public DriverTest {};

TEST_P(LargeWriteTest, HostWriteIsOneFrameCarryingEveryRegister) {
    const LargeWriteRow &row = GetParam();
    info.maxFrameWords = row.count;
    ASSERT_EQ(SetRegisterData(QString::fromLatin1(row.area), 0x0100, 1, row.value, row.count), 1);
    const Protocol *sent = ComCommunication();
    ASSERT_NE(sent, nullptr);

    ASSERT_EQ(sent->frame.size(), 4 * row.count + 19);
    EXPECT_EQ(sent->frameLength, 4 * row.count + 19);
    EXPECT_TRUE(sent->frame.startsWith(row.header)) << sent->frame.left(20).constData();
    EXPECT_TRUE(sent->frame.endsWith(row.trailer)) << sent->frame.right(8).constData();
    EXPECT_EQ(sent->frame, row.header + row.data + row.trailer);
    EXPECT_EQ(sent->replyLength, 17);
    EXPECT_EQ(sent->var.count, row.count);
}

INSTANTIATE_TEST_SUITE_P(RegisterCounts, LargeWriteTest, ::testing::ValuesIn(kRows));

TEST_F(LargeWriteQueueTest, LargeWriteIsAnsweredAndCompletesLikeAnyOther) {
    info.maxFrameWords = 70000;
    SetRegisterData(QStringLiteral("4x"), 0x0100, 1, RegistersOf1234(70000), 70000);
    ASSERT_NE(ComCommunication(), nullptr);
    // Station, function, address and the quantity's low 16 bits: 01 10 0100 1170, LRC 6D.
    QByteArray reply(":0110010011706D\r\n");
    EXPECT_EQ(DataCom(&reply), 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.holdingRegArea[0x0100], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0x1234);
}

// The longest frame the driver builds is 256 MiB: 4 x 67,108,859 + 19 = 268,435,455 characters.
TEST_F(LargeWriteQueueTest, RegisterWriteTooLongForAFrameIsRefusedWhenQueued) {
    RW_VAR fits = MakeVar("4x", 0, 1, 67108859, 1);
    RW_VAR tooLong = MakeVar("4x_double", 0, 1, 67108860, 1);
    EXPECT_EQ(AddListWriteVar(&tooLong), 0);
    EXPECT_EQ(AddListWriteVar(&fits), 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.writeList.first().count, 67108859);
}

TEST_F(LargeWriteQueueTest, BitWritesKeepAnyCountSinceTheirFramesDoNotGrow) {
    RW_VAR coil = MakeVar("0x", 0, 1, 67108860, 1, Bytes({1}));
    RW_VAR bit = MakeVar("4x_bit", 16, 1, 67108860, 1, Bytes({1}));
    EXPECT_EQ(AddListWriteVar(&coil), 1);
    EXPECT_EQ(AddListWriteVar(&bit), 2);
}

}  // namespace
