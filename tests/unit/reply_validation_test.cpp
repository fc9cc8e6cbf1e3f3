// SPDX-License-Identifier: MIT
// Reply validation: presence, length and LRC of a reply judged against the frame it answers,
// and the result codes offset by the owner type of the request.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

class ReplyValidationTest : public DriverTest {
protected:
    // The frame at the head of sendList, as a builder would leave it.
    Protocol &QueueFrame(const char *areaName, int address, int station, int replyLength,
                         int replyDataStart, int replyDataLength, int direction,
                         int ownerType = 0) {
        Protocol p;
        p.frame = ":request\r\n";
        p.frameLength = p.frame.size();
        p.replyLength = replyLength;
        p.replyDataStart = replyDataStart;
        p.replyDataLength = replyDataLength;
        p.var = MakeVar(areaName, address, station, replyDataLength / 4, direction);
        p.var.ownerType = ownerType;
        PLC_driver.sendList.append(p);
        return PLC_driver.sendList.last();
    }

    // A one-register "4x" read of register 0 from station 1.
    void QueueOneRegisterRead(int ownerType = 0) { QueueFrame("4x", 0, 1, 15, 7, 4, 0, ownerType); }

    int Deal(const QByteArray &reply) {
        QByteArray copy = reply;
        return DealDataOfLocalArea(&copy, copy.size());
    }
};

TEST_F(ReplyValidationTest, EmptyReplyToBroadcastIsAcceptedAndStoresNothing) {
    QueueFrame("4x", 0, 0, 0, 0, 0, 0);
    QByteArray empty;
    EXPECT_EQ(CheckGetData(&empty, 0), 2);
    EXPECT_EQ(DealDataOfLocalArea(&empty, 0), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);  // validation leaves the frame in place
}

TEST_F(ReplyValidationTest, EmptyReplyToReadOfOwnerTypeThreeIsCode44) {
    QueueOneRegisterRead(3);
    EXPECT_EQ(Deal(QByteArray()), 44);
}

TEST_F(ReplyValidationTest, CorrectFifteenCharacterReplyIsStored) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(":0103021234B4\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1234);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
}

TEST_F(ReplyValidationTest, ChangedDataCharacterIsContentInvalid) {
    QueueOneRegisterRead(2);
    EXPECT_EQ(Deal(":0103021235B4\r\n"), 13);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
}

TEST_F(ReplyValidationTest, ThirteenCharacterReplyIsWrongLengthWhateverItsContent) {
    QueueOneRegisterRead(2);
    EXPECT_EQ(Deal(":010302123400"), 73);
    EXPECT_EQ(Deal("ABCDEFGHIJKLM"), 73);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
}

TEST_F(ReplyValidationTest, LongerReplyIsWrongLength) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(":0103021234B4\r\n\r\n"), 71);
}

TEST_F(ReplyValidationTest, ExceptionReplyToReadIsWrongLength) {
    QueueOneRegisterRead(1);
    EXPECT_EQ(Deal(":0183027A\r\n"), 72);
}

TEST_F(ReplyValidationTest, CorrectReplyToWriteIsAcceptedWithoutTouchingImage) {
    QueueFrame("4x", 1, 1, 17, 0, 0, 1);
    QByteArray echo(":010600010003F5\r\n");
    EXPECT_EQ(CheckGetData(&echo, echo.size()), 2);
    EXPECT_EQ(Deal(echo), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0);
}

TEST_F(ReplyValidationTest, CheckGetDataOfCorrectReadReplyAsksForStorage) {
    QueueOneRegisterRead();
    QByteArray reply(":0103021234B4\r\n");
    EXPECT_EQ(CheckGetData(&reply, reply.size()), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);  // checking alone stores nothing
}

TEST_F(ReplyValidationTest, DirectionOtherThanReadOrWriteMakesEveryReplyInvalid) {
    QueueFrame("4x", 0, 1, 15, 7, 4, 2, 4);
    QByteArray reply(":0103021234B4\r\n");
    EXPECT_EQ(CheckGetData(&reply, reply.size()), 0);
    EXPECT_EQ(Deal(reply), 15);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
}

TEST_F(ReplyValidationTest, LowerCaseLrcFailsEvenThoughValueIsRight) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(":0103021234b4\r\n"), 11);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
}

TEST_F(ReplyValidationTest, LowerCaseDataCharactersDecodeLikeUpperCase) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(":010302abcd82\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0xABCD);
}

TEST_F(ReplyValidationTest, BytesSummingToMultipleOf256HaveLrcZeroZero) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(":01030200FA00\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x00FA);
}

TEST_F(ReplyValidationTest, StartCharacterStationFunctionAndEndAreNotChecked) {
    QueueOneRegisterRead();
    // Same bytes, so the same LRC; the start character is not examined.
    EXPECT_EQ(Deal("X0103021234B4\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1234);
    // Station 2 and function 4 where 1 and 3 were asked, and no CR LF at the end.
    EXPECT_EQ(Deal(":02040256782AXY"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x5678);
}

TEST_F(ReplyValidationTest, AnyLengthIsAcceptedWhenReplyLengthIsMinusOne) {
    QueueFrame("4x", 0, 1, -1, 7, 4, 0);
    EXPECT_EQ(Deal(":0103021234B4\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1234);
    EXPECT_EQ(Deal(":0103041111ABCD5E\r\n"), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1111);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0);  // replyDataLength covers one register
    EXPECT_EQ(Deal(":0103021234B5\r\n"), 11);
}

TEST_F(ReplyValidationTest, EmptyReplyWhenAnyLengthIsAcceptedIsNoReply) {
    QueueFrame("4x", 0, 1, -1, 7, 4, 0, 5);
    EXPECT_EQ(Deal(QByteArray()), 46);
}

TEST_F(ReplyValidationTest, ReplyLengthLongerThanReplyIsInvalid) {
    QueueOneRegisterRead();
    QByteArray reply(":0103021234B4\r\n");
    EXPECT_EQ(CheckGetData(&reply, reply.size() + 3), 0);
}

TEST_F(ReplyValidationTest, ReplyOfNonHexBytesIsRejectedAndStoresNothing) {
    QueueOneRegisterRead();
    EXPECT_EQ(Deal(QByteArray(15, 'Z')), 11);
    EXPECT_EQ(Deal(QByteArray(15, '\xFF')), 11);
    EXPECT_EQ(Deal(QByteArray(15, '\0')), 1);  // every character counts 0: LRC 0 matches
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0);
}

TEST_F(ReplyValidationTest, ValidationLeavesFrameAtHeadOfSendList) {
    QueueOneRegisterRead();
    Deal(QByteArray());
    Deal(":0103021235B4\r\n");
    Deal(":0103021234B4\r\n");
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
}

// Result codes per owner type: 1 to 11 offset the code, every other owner type counts as 0.
struct OwnerTypeCase {
    int ownerType;
    int noReply;
    int wrongLength;
    int badContent;
};

class ReplyCodeTest : public ReplyValidationTest,
                      public ::testing::WithParamInterface<OwnerTypeCase> {};

TEST_P(ReplyCodeTest, CodesAreOffsetByOwnerType) {
    const OwnerTypeCase c = GetParam();
    QueueOneRegisterRead(c.ownerType);
    EXPECT_EQ(Deal(QByteArray()), c.noReply);
    EXPECT_EQ(Deal(":0103021234B4\r"), c.wrongLength);
    EXPECT_EQ(Deal(":0103021234B5\r\n"), c.badContent);
    EXPECT_EQ(Deal(":0103021234B4\r\n"), 1);
}

INSTANTIATE_TEST_SUITE_P(
    OwnerTypes, ReplyCodeTest,
    ::testing::Values(OwnerTypeCase{0, 41, 71, 11}, OwnerTypeCase{1, 42, 72, 12},
                      OwnerTypeCase{2, 43, 73, 13}, OwnerTypeCase{3, 44, 74, 14},
                      OwnerTypeCase{4, 45, 75, 15}, OwnerTypeCase{5, 46, 76, 16},
                      OwnerTypeCase{6, 47, 77, 17}, OwnerTypeCase{7, 48, 78, 18},
                      OwnerTypeCase{8, 49, 79, 19}, OwnerTypeCase{9, 50, 80, 20},
                      OwnerTypeCase{10, 51, 81, 21}, OwnerTypeCase{11, 52, 82, 22},
                      OwnerTypeCase{12, 41, 71, 11}, OwnerTypeCase{-1, 41, 71, 11},
                      OwnerTypeCase{100, 41, 71, 11}));

TEST_F(ReplyValidationTest, CoilReplyIsAcceptedAndStored) {
    QueueFrame("0x", 0, 1, 15, 7, 4, 0);
    EXPECT_EQ(Deal(":010102CD012E\r\n"), 1);
    EXPECT_EQ(PLC_driver.coilArea[0], 0xCD);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x01);
}

TEST_F(ReplyValidationTest, WriteEchoWithWrongLrcIsContentInvalid) {
    QueueFrame("4x", 1, 1, 17, 0, 0, 1, 6);
    EXPECT_EQ(Deal(":010600010003F6\r\n"), 17);
}

}  // namespace
