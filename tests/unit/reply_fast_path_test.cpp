// SPDX-License-Identifier: MIT
// The reply path's quick loops (area names by character; digits by table in short replies and
// without one in long replies, whose LRC is summed in 8-bit lanes; registers decoded in place)
// keep the driver's rules exactly.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <algorithm>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

struct AreaRow {
    const char *name;
    AreaTable table;
    AreaShape shape;
};

class AreaKindTest : public ::testing::TestWithParam<AreaRow> {};

TEST_P(AreaKindTest, NameIsClassifiedExactly) {
    const AreaKind kind = KindOfArea(QString::fromLatin1(GetParam().name));
    EXPECT_EQ(kind.table, GetParam().table);
    EXPECT_EQ(kind.shape, GetParam().shape);
}

INSTANTIATE_TEST_SUITE_P(
    Names, AreaKindTest,
    ::testing::Values(AreaRow{"0x", AreaTable::Coils, AreaShape::Bits},
                      AreaRow{"1x", AreaTable::InputBits, AreaShape::Bits},
                      AreaRow{"3x", AreaTable::InputRegisters, AreaShape::Registers},
                      AreaRow{"4x", AreaTable::HoldingRegisters, AreaShape::Registers},
                      AreaRow{"3x_bit", AreaTable::InputRegisters, AreaShape::RegisterBits},
                      AreaRow{"4x_bit", AreaTable::HoldingRegisters, AreaShape::RegisterBits},
                      AreaRow{"3x_double", AreaTable::InputRegisters, AreaShape::Doubles},
                      AreaRow{"4x_double", AreaTable::HoldingRegisters, AreaShape::Doubles},
                      AreaRow{"", AreaTable::None, AreaShape::None},
                      AreaRow{"x", AreaTable::None, AreaShape::None},
                      AreaRow{"2x", AreaTable::None, AreaShape::None},
                      AreaRow{"4X", AreaTable::None, AreaShape::None},
                      AreaRow{"4x ", AreaTable::None, AreaShape::None},
                      AreaRow{"0x_bit", AreaTable::None, AreaShape::None},
                      AreaRow{"1x_double", AreaTable::None, AreaShape::None},
                      AreaRow{"4x_bi", AreaTable::None, AreaShape::None},
                      AreaRow{"4x_bits", AreaTable::None, AreaShape::None},
                      AreaRow{"4x_Double", AreaTable::None, AreaShape::None},
                      AreaRow{"3x_doubl", AreaTable::None, AreaShape::None},
                      AreaRow{"4y_bit", AreaTable::None, AreaShape::None}));

// The tolerant digit rule, spelled out here for every character.
TEST(DigitRuleTest, EveryCharacterFollowsTheRule) {
    for (int c = 0; c < 256; ++c) {
        int expected = c - 0x37;
        if (c < 0x30 || c == 0x40) expected = 0;
        if (c >= 0x30 && c <= 0x3F) expected = c - 0x30;
        EXPECT_EQ(DigitValue(static_cast<unsigned char>(c)), expected) << "character " << c;
    }
}

// The look-up table of the short loops: every pair of characters against the rule above.
TEST(DigitRuleTest, EveryPairOfCharactersMakesItsDataByte) {
    const auto rule = [](int c) {
        if (c < 0x30 || c == 0x40) return 0;
        return c <= 0x3F ? c - 0x30 : c - 0x37;
    };
    for (int high = 0; high < 256; ++high) {
        for (int low = 0; low < 256; ++low) {
            const char text[2] = {static_cast<char>(high), static_cast<char>(low)};
            const unsigned int expected = ((rule(high) * 16) & 0xF0) + (rule(low) & 0x0F);
            ASSERT_EQ(DataByteFromDigits(text), expected) << "characters " << high << ", " << low;
        }
    }
}

// Replies of 1 to 20 bytes before the LRC: both the short loop (fewer than 32 characters)
// and the vector loop check lower-case digits as upper-case ones, and catch a changed digit.
TEST(ReplyLrcLengthTest, EveryLengthChecksLowerCaseAndCatchesAChangedDigit) {
    for (int bytes = 1; bytes <= 20; ++bytes) {
        QByteArray body;
        for (int i = 0; i < bytes; ++i) {
            body += QByteArray::number((0x9E + 37 * i) & 0xFF, 16).rightJustified(2, '0').toUpper();
        }
        QByteArray reply = SlaveReply(body.constData());
        for (int i = 1; i <= 2 * bytes; ++i) {
            reply[i] = static_cast<char>(QChar::toLower(reply.at(i)));
        }
        EXPECT_TRUE(ReplyLrcMatches(reply, reply.size())) << reply.constData();
        reply[1] = static_cast<char>(reply.at(1) == '8' ? '7' : '8');
        EXPECT_FALSE(ReplyLrcMatches(reply, reply.size())) << reply.constData();
    }
}

class ReplyFastPathTest : public DriverTest {
protected:
    void QueueHoldingRead(int address, int registers) {
        Protocol p;
        p.replyLength = 11 + 4 * registers;
        p.replyDataStart = 7;
        p.replyDataLength = 4 * registers;
        p.var = MakeVar("4x", address, 1, registers, 0);
        PLC_driver.sendList.append(p);
    }
};

// Lower-case data digits count as their upper-case ones ('a' - 0x37 is 42, whose low four
// bits are 10), in the LRC as in the values stored.
TEST_F(ReplyFastPathTest, LowerCaseDataDigitsCheckAndStoreAsUpperCase) {
    QByteArray reply = SlaveReply("010306ABCDEF0189FA");
    ASSERT_EQ(reply, QByteArray(":010306ABCDEF0189FA0B\r\n"));
    for (int i = 7; i < 19; ++i) reply[i] = static_cast<char>(QChar::toLower(reply.at(i)));
    ASSERT_EQ(reply, QByteArray(":010306abcdef0189fa0B\r\n"));
    EXPECT_TRUE(ReplyLrcMatches(reply, reply.size()));

    QueueHoldingRead(10, 3);
    SaveToLocalDataErea(&reply);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0xABCD);
    EXPECT_EQ(PLC_driver.holdingRegArea[11], 0xEF01);
    EXPECT_EQ(PLC_driver.holdingRegArea[12], 0x89FA);
}

// 'G' is 0x10 by the rule, so its digit is 0; '@' and ' ' are 0 as well.
TEST_F(ReplyFastPathTest, OtherCharactersDecodeByTheRule) {
    QueueHoldingRead(0, 2);
    QByteArray reply(":0103041G2@ 3:?\r\n");
    SaveToLocalDataErea(&reply);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1020);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0x03AF);
}

// Seven registers go through the short loop, eight through the vector loop: both follow the
// rule for odd characters and lower-case digits.
TEST_F(ReplyFastPathTest, OddCharactersDecodeByTheRuleInShortAndLongReplies) {
    const QByteArray data("1G2@ 3:?abcdef011G2@ 3:?abcdef01");
    const unsigned short expected[8] = {0x1020, 0x03AF, 0xABCD, 0xEF01,
                                        0x1020, 0x03AF, 0xABCD, 0xEF01};
    for (int registers : {7, 8}) {
        std::fill(PLC_driver.holdingRegArea, PLC_driver.holdingRegArea + 8, 0);
        PLC_driver.sendList.clear();
        QueueHoldingRead(0, registers);
        QByteArray reply = ":010310" + data.left(4 * registers) + "00\r\n";
        SaveToLocalDataErea(&reply);
        for (int i = 0; i < registers; ++i) {
            EXPECT_EQ(PLC_driver.holdingRegArea[i], expected[i])
                << registers << " registers, register " << i;
        }
    }
}

// A long reply whose last data byte makes the 8-bit sum wrap many times still checks.
TEST_F(ReplyFastPathTest, LongReplyChecksAndStoresEveryRegister) {
    QByteArray body("0103FA");
    for (int i = 0; i < 125; ++i) body += QByteArray::number(0xF0F0 + i, 16).toUpper();
    const QByteArray reply = SlaveReply(body.constData());
    EXPECT_TRUE(ReplyLrcMatches(reply, reply.size()));
    QByteArray broken = reply;
    broken[reply.size() - 6] = static_cast<char>(broken.at(reply.size() - 6) == '0' ? '1' : '0');
    EXPECT_FALSE(ReplyLrcMatches(broken, broken.size()));

    QueueHoldingRead(65500, 125);
    QByteArray copy = reply;
    SaveToLocalDataErea(&copy);
    EXPECT_EQ(PLC_driver.holdingRegArea[65500], 0xF0F0);
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0xF0F0 + 35);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
}

}  // namespace
