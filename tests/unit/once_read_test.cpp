// SPDX-License-Identifier: MIT
// One-shot reads: normalisation to bytes or registers, pieces, duplicates and the list limit.
#include <gtest/gtest.h>

#include <vector>

#include "driver_fixture.h"

namespace {

struct ExpectedPiece {
    int address;
    int count;
};

void ExpectOnceReadList(const char *areaName, int station, int ownerType, int ownerId,
                        const std::vector<ExpectedPiece> &expected) {
    const QList<RW_VAR> &list = PLC_driver.onceReadList;
    ASSERT_EQ(list.size(), static_cast<int>(expected.size()));
    for (int i = 0; i < list.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(list.at(i).area, QString::fromLatin1(areaName));
        EXPECT_EQ(list.at(i).address, expected[i].address);
        EXPECT_EQ(list.at(i).count, expected[i].count);
        EXPECT_EQ(list.at(i).station, station);
        EXPECT_EQ(list.at(i).ownerType, ownerType);
        EXPECT_EQ(list.at(i).ownerId, ownerId);
    }
}

RW_VAR OwnedVar(const char *areaName, int address, int count, int ownerType = 3, int ownerId = 17) {
    RW_VAR var = MakeVar(areaName, address, 9, count);
    var.ownerType = ownerType;
    var.ownerId = ownerId;
    return var;
}

// Fills onceReadList with n distinct single-register reads.
void FillOnceReadList(int n) {
    for (int i = 0; i < n; ++i) PLC_driver.onceReadList.append(MakeVar("4x", i, 1, 1));
}

class OnceReadTest : public DriverTest {};

TEST_F(OnceReadTest, NegativeAddressQueuesNothingAndReturnsZero) {
    FillOnceReadList(2);
    RW_VAR var = OwnedVar("4x", -1, 1);
    EXPECT_EQ(AddListOnceReadVar(&var), 0);
    EXPECT_EQ(PLC_driver.onceReadList.size(), 2);
    EXPECT_EQ(var.address, -1);
    EXPECT_EQ(var.count, 1);
}

TEST_F(OnceReadTest, CoilSpanOfWholeBytesAsksOneByteMore) {
    RW_VAR var = OwnedVar("0x", 8, 8);
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("0x", 1, 3, 17, {{8, 2}});
}

TEST_F(OnceReadTest, CoilsAreReadFromTheStartOfTheirByte) {
    RW_VAR var = OwnedVar("1x", 13, 4);
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("1x", 1, 3, 17, {{8, 2}});
}

TEST_F(OnceReadTest, BitInsideARegisterReadsItsRegister) {
    RW_VAR var = OwnedVar("4x_bit", 3 * 16 + 2, 4);
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("4x_bit", 1, 3, 17, {{3, 1}});
}

TEST_F(OnceReadTest, BitSpanEndingOnARegisterBoundaryReadsOneRegisterMore) {
    RW_VAR var = OwnedVar("3x_bit", 3 * 16, 16);
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("3x_bit", 1, 3, 17, {{3, 2}});
}

TEST_F(OnceReadTest, SameRequestTwiceLeavesOneEntry) {
    RW_VAR first = OwnedVar("4x", 100, 2);
    RW_VAR second = OwnedVar("4x", 100, 2);
    EXPECT_EQ(AddListOnceReadVar(&first), 1);
    EXPECT_EQ(AddListOnceReadVar(&second), 1);
    ExpectOnceReadList("4x", 1, 3, 17, {{100, 2}});
}

TEST_F(OnceReadTest, RequestsOfAnotherOwnerAreNotDuplicates) {
    RW_VAR first = OwnedVar("4x", 100, 2, 3, 17);
    RW_VAR second = OwnedVar("4x", 100, 2, 3, 18);
    RW_VAR third = OwnedVar("4x", 100, 2, 4, 17);
    EXPECT_EQ(AddListOnceReadVar(&first), 1);
    EXPECT_EQ(AddListOnceReadVar(&second), 2);
    EXPECT_EQ(AddListOnceReadVar(&third), 3);
}

TEST_F(OnceReadTest, RequestsOfAnotherAreaOrCountAreNotDuplicates) {
    RW_VAR holding = OwnedVar("4x", 100, 2);
    RW_VAR input = OwnedVar("3x", 100, 2);
    RW_VAR longer = OwnedVar("4x", 100, 3);
    EXPECT_EQ(AddListOnceReadVar(&holding), 1);
    EXPECT_EQ(AddListOnceReadVar(&input), 2);
    EXPECT_EQ(AddListOnceReadVar(&longer), 3);
}

TEST_F(OnceReadTest, FullListDropsTheRequest) {
    FillOnceReadList(1024);
    RW_VAR var = OwnedVar("3x", 5000, 1);
    EXPECT_EQ(AddListOnceReadVar(&var), 1024);
    EXPECT_EQ(PLC_driver.onceReadList.last().address, 1023);
}

TEST_F(OnceReadTest, PiecesBeyondTheLimitAreDroppedAndTheRecordHoldsTheLastPiece) {
    FillOnceReadList(1023);
    RW_VAR var = OwnedVar("3x", 5000, 300);
    EXPECT_EQ(AddListOnceReadVar(&var), 1024);
    EXPECT_EQ(PLC_driver.onceReadList.last().address, 5000);
    EXPECT_EQ(PLC_driver.onceReadList.last().count, 125);
    EXPECT_EQ(var.address, 5250);
    EXPECT_EQ(var.count, 50);
}

TEST_F(OnceReadTest, LongRegisterReadIsCutAtTheFrameLimit) {
    RW_VAR var = OwnedVar("4x", 0, 300);
    EXPECT_EQ(AddListOnceReadVar(&var), 3);
    ExpectOnceReadList("4x", 1, 3, 17, {{0, 125}, {125, 125}, {250, 50}});
}

TEST_F(OnceReadTest, LongCoilReadIsCutIntoPiecesOfWholeBytes) {
    info.maxFrameWords = 10;
    RW_VAR var = OwnedVar("0x", 0, 239);  // 239 / 8 + 1 = 30 bytes
    EXPECT_EQ(AddListOnceReadVar(&var), 3);
    ExpectOnceReadList("0x", 1, 3, 17, {{0, 10}, {80, 10}, {160, 10}});
}

TEST_F(OnceReadTest, ExactMultipleOfTheFrameLimitGivesFullPieces) {
    info.maxFrameWords = 10;
    RW_VAR var = OwnedVar("3x_double", 40, 20);
    EXPECT_EQ(AddListOnceReadVar(&var), 2);
    ExpectOnceReadList("3x_double", 1, 3, 17, {{40, 10}, {50, 10}});
}

TEST_F(OnceReadTest, CallersRecordIsRewritten) {
    RW_VAR var = OwnedVar("4x", 0, 300);
    var.bitWriteMark = -1;
    var.extraB = 5;
    AddListOnceReadVar(&var);
    EXPECT_EQ(var.station, 1);
    EXPECT_EQ(var.bitWriteMark, 0);
    EXPECT_EQ(var.extraB, 0);
    EXPECT_EQ(var.address, 250);
    EXPECT_EQ(var.count, 50);
    EXPECT_EQ(PLC_driver.onceReadList.first().bitWriteMark, 0);
    EXPECT_EQ(PLC_driver.onceReadList.first().extraB, 0);
}

TEST_F(OnceReadTest, GroupedStationsKeepTheRequestsStation) {
    info.multiStation = 1;
    RW_VAR var = OwnedVar("3x", 10, 1);  // station 9
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("3x", 9, 3, 17, {{10, 1}});
}

TEST_F(OnceReadTest, OtherAreaStringsAreReadAsRegisters) {
    RW_VAR var = OwnedVar("5x", 700, 3);
    EXPECT_EQ(AddListOnceReadVar(&var), 1);
    ExpectOnceReadList("5x", 1, 3, 17, {{700, 3}});
}

TEST_F(OnceReadTest, ReadOfNothingQueuesNothing) {
    RW_VAR var = OwnedVar("4x", 10, 0);
    EXPECT_EQ(AddListOnceReadVar(&var), 0);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(OnceReadTest, FrameLimitBelowOneQueuesNothing) {
    FillOnceReadList(2);
    for (int limit : {0, -5}) {
        SCOPED_TRACE(limit);
        info.maxFrameWords = limit;
        RW_VAR coils = OwnedVar("0x", 0, 16);
        RW_VAR registers = OwnedVar("4x", 0, 16);
        RW_VAR negative = OwnedVar("4x", -1, 16);
        EXPECT_EQ(AddListOnceReadVar(&coils), 2);
        EXPECT_EQ(AddListOnceReadVar(&registers), 2);
        EXPECT_EQ(AddListOnceReadVar(&negative), 0);
        EXPECT_EQ(PLC_driver.onceReadList.size(), 2);
    }
}

TEST_F(OnceReadTest, WithoutComInfoNothingIsQueued) {
    SetComInfo(nullptr);
    RW_VAR var = OwnedVar("4x", 0, 1);
    EXPECT_EQ(AddListOnceReadVar(&var), 0);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(OnceReadTest, NullRecordReturnsZero) {
    EXPECT_EQ(AddListOnceReadVar(nullptr), 0);
}

}  // namespace
