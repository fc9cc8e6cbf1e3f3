// SPDX-License-Identifier: MIT
// Storing accepted read replies: into the local register image, into the per-station
// records, and the completion of a bit-in-register write from the register read back.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

class ReplyStorageTest : public DriverTest {
protected:
    // A read frame at the head of sendList, as a builder would leave it.
    Protocol &QueueRead(const char *areaName, int address, int station, int replyDataLength,
                        int bitWriteMark = 0) {
        Protocol p;
        p.frame = ":request\r\n";
        p.frameLength = p.frame.size();
        p.replyLength = 11 + replyDataLength;
        p.replyDataStart = 7;
        p.replyDataLength = replyDataLength;
        p.var = MakeVar(areaName, address, station, replyDataLength / 4, 0);
        p.var.bitWriteMark = bitWriteMark;
        PLC_driver.sendList.append(p);
        return PLC_driver.sendList.last();
    }

    void Store(const QByteArray &reply) {
        QByteArray copy = reply;
        SaveToLocalDataErea(&copy);
    }

    // Queues a bit-in-register write the way the scheduler does: the request at the head of
    // writeList, its two frames built from it.
    void QueueBitWrite(int address, int station, const QByteArray &value) {
        RW_VAR request = MakeVar("4x_bit", address, station, 1, 1, value);
        PLC_driver.writeList.append(request);
        WriteRegister(&PLC_driver.writeList.first());
        ASSERT_EQ(PLC_driver.sendList.size(), 2);
    }

    const EXTENDVAR *Record(int station, const char *areaName, int address) {
        const EXTENDVAR *found = nullptr;
        for (const EXTENDVAR &r : PLC_driver.extendList) {
            if (r.station == station && r.area == QLatin1String(areaName) && r.address == address) {
                if (found != nullptr) ADD_FAILURE() << "duplicate record";
                found = &r;
            }
        }
        return found;
    }
};

// ---- Bits --------------------------------------------------------------------------------

TEST_F(ReplyStorageTest, CoilReplyStoresDataThenLrcThenZero) {
    PLC_driver.coilArea[3] = 0x55;
    PLC_driver.coilArea[4] = 0x66;
    QueueRead("0x", 0, 1, 4);
    Store(":010102CD012E\r\n");
    EXPECT_EQ(PLC_driver.coilArea[0], 0xCD);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x01);
    EXPECT_EQ(PLC_driver.coilArea[2], 0x2E);  // the reply's LRC
    EXPECT_EQ(PLC_driver.coilArea[3], 0x00);  // CR LF decodes to 0
    EXPECT_EQ(PLC_driver.coilArea[4], 0x66);  // past the end of the reply: untouched
}

TEST_F(ReplyStorageTest, OneByteCoilReplyWritesOnlyLrcAfterData) {
    PLC_driver.coilArea[2] = 0x77;
    QueueRead("0x", 0, 1, 2);
    Store(":010101A558\r\n");
    EXPECT_EQ(PLC_driver.coilArea[0], 0xA5);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x58);
    EXPECT_EQ(PLC_driver.coilArea[2], 0x77);
}

TEST_F(ReplyStorageTest, InputReplyStoresAtItsBitAddress) {
    QueueRead("1x", 16, 1, 4);
    Store(":010202CD012D\r\n");
    EXPECT_EQ(PLC_driver.inputBitArea[2], 0xCD);
    EXPECT_EQ(PLC_driver.inputBitArea[3], 0x01);
    EXPECT_EQ(PLC_driver.inputBitArea[4], 0x2D);
    EXPECT_EQ(PLC_driver.inputBitArea[5], 0x00);
    EXPECT_EQ(PLC_driver.coilArea[2], 0x00);
}

TEST_F(ReplyStorageTest, CoilReplyAtTopOfAreaWritesSpareByteAndDropsTheRest) {
    PLC_driver.inputBitArea[0] = 0x42;
    QueueRead("0x", 65528, 1, 4);
    Store(":010102CD012E\r\n");
    EXPECT_EQ(PLC_driver.coilArea[8191], 0xCD);
    EXPECT_EQ(PLC_driver.coilArea[8192], 0x01);  // the spare byte
    EXPECT_EQ(PLC_driver.inputBitArea[0], 0x42);
}

TEST_F(ReplyStorageTest, OneByteCoilReplyAtLastByteWritesLrcIntoSpareByte) {
    QueueRead("0x", 65528, 1, 2);
    Store(":010101A558\r\n");
    EXPECT_EQ(PLC_driver.coilArea[8191], 0xA5);
    EXPECT_EQ(PLC_driver.coilArea[8192], 0x58);
}

TEST_F(ReplyStorageTest, InputReplyAtTopOfAreaLeavesInputRegistersAlone) {
    PLC_driver.inputRegArea[0] = 0x4242;
    QueueRead("1x", 65528, 1, 4);
    Store(":010202CD012D\r\n");
    EXPECT_EQ(PLC_driver.inputBitArea[8191], 0xCD);
    EXPECT_EQ(PLC_driver.inputBitArea[8192], 0x01);
    EXPECT_EQ(PLC_driver.inputRegArea[0], 0x4242);
}

TEST_F(ReplyStorageTest, CoilReplyAtNegativeAddressKeepsOnlyBytesInsideImage) {
    // Start byte -8 / 8 = -1: the first data byte falls outside and is dropped.
    QueueRead("0x", -8, 1, 4);
    Store(":010102CD012E\r\n");
    EXPECT_EQ(PLC_driver.coilArea[0], 0x01);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x2E);
    EXPECT_EQ(PLC_driver.coilArea[2], 0x00);
}

TEST_F(ReplyStorageTest, HugeBitReplyDataLengthStoresOnlyWhatTheReplyHolds) {
    PLC_driver.coilArea[5] = 0x99;
    QueueRead("0x", 0, 1, 1 << 20);
    Store(":010102CD012E\r\n");
    EXPECT_EQ(PLC_driver.coilArea[0], 0xCD);
    EXPECT_EQ(PLC_driver.coilArea[3], 0x00);
    EXPECT_EQ(PLC_driver.coilArea[5], 0x99);
}

// ---- Registers ---------------------------------------------------------------------------

TEST_F(ReplyStorageTest, TwoHoldingRegistersAt100) {
    QueueRead("4x", 100, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[100], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[101], 0xABCD);
    EXPECT_EQ(PLC_driver.holdingRegArea[102], 0);
    EXPECT_EQ(PLC_driver.inputRegArea[100], 0);
}

TEST_F(ReplyStorageTest, InputDoubleIsStoredLikeInputRegistersHighOrderFirst) {
    QueueRead("3x_double", 50, 1, 8);
    Store(":01040412345678E3\r\n");
    EXPECT_EQ(PLC_driver.inputRegArea[50], 0x1234);
    EXPECT_EQ(PLC_driver.inputRegArea[51], 0x5678);
}

TEST_F(ReplyStorageTest, InputRegistersAndInputBitsInRegisterGoToInputRegisters) {
    QueueRead("3x", 7, 1, 4);
    Store(":0104021234B3\r\n");
    EXPECT_EQ(PLC_driver.inputRegArea[7], 0x1234);
    PLC_driver.sendList.clear();
    QueueRead("3x_bit", 8, 1, 4);
    Store(":01040256782B\r\n");
    EXPECT_EQ(PLC_driver.inputRegArea[8], 0x5678);
    EXPECT_EQ(PLC_driver.holdingRegArea[7], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[8], 0);
}

TEST_F(ReplyStorageTest, HoldingDoubleGoesToHoldingRegisters) {
    QueueRead("4x_double", 60, 1, 8);
    Store(":01030412345678E4\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[60], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[61], 0x5678);
}

TEST_F(ReplyStorageTest, UnknownAreaStoresNothing) {
    QueueRead("4X", 100, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[100], 0);
    EXPECT_EQ(PLC_driver.inputRegArea[100], 0);
    EXPECT_EQ(PLC_driver.coilArea[12], 0);
}

TEST_F(ReplyStorageTest, RegistersPastTheEndOfTheReplyAreLeftUnchanged) {
    PLC_driver.holdingRegArea[11] = 0x7777;
    QueueRead("4x", 10, 1, 8);
    Store(":0103041234");
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[11], 0x7777);
}

TEST_F(ReplyStorageTest, RegisterReplyAtTopOfAreaDropsRegistersPast65535) {
    PLC_driver.inputRegArea[0] = 0x4242;
    PLC_driver.holdingRegArea[0] = 0x4343;
    QueueRead("3x", 65535, 1, 8);
    Store(":01040412345678E3\r\n");
    EXPECT_EQ(PLC_driver.inputRegArea[65535], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x4343);
    EXPECT_EQ(PLC_driver.inputRegArea[0], 0x4242);

    PLC_driver.sendList.clear();
    QueueRead("4x", 65535, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x4343);
    // The driver object behind the area is still intact.
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
    const EXTENDVAR *created = &FindOrCreateExtendVar(1, QStringLiteral("4x"), 1);
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    EXPECT_EQ(created, &PLC_driver.extendList.first());
}

TEST_F(ReplyStorageTest, RegisterReplyOutsideTheImageStoresNothing) {
    std::vector<unsigned short> before(PLC_driver.holdingRegArea,
                                       PLC_driver.holdingRegArea + 65536);
    QueueRead("4x", 70000, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    PLC_driver.sendList.clear();
    QueueRead("4x", -16, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(std::memcmp(before.data(), PLC_driver.holdingRegArea, sizeof(unsigned short) * 65536),
              0);
}

TEST_F(ReplyStorageTest, RegisterReplyStraddlingZeroKeepsTheRegistersInside) {
    QueueRead("4x", -1, 1, 8);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0xABCD);
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0);
}

TEST_F(ReplyStorageTest, HugeRegisterDataLengthStoresOnlyWhatTheReplyHolds) {
    PLC_driver.holdingRegArea[2] = 0x2222;
    QueueRead("4x", 0, 1, 1 << 20);
    Store(":0103041234ABCD3A\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0xABCD);
    // Register 2 is decoded from "3A\r\n", as the reply's characters stand.
    EXPECT_EQ(PLC_driver.holdingRegArea[2], 0x3A00);
    EXPECT_EQ(PLC_driver.holdingRegArea[3], 0);
}

// ---- The digit rule ----------------------------------------------------------------------

struct DigitCase {
    const char *characters;  // four data characters of one register
    unsigned short value;
};

class DigitRuleTest : public ReplyStorageTest, public ::testing::WithParamInterface<DigitCase> {};

TEST_P(DigitRuleTest, RegisterDecodesByTolerantDigitRule) {
    QueueRead("4x", 0, 1, 4);
    QByteArray reply(":010302");
    reply.append(GetParam().characters, 4);
    reply.append("00\r\n");
    Store(reply);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], GetParam().value) << GetParam().characters;
}

INSTANTIATE_TEST_SUITE_P(Characters, DigitRuleTest,
                         ::testing::Values(DigitCase{"0G1a", 0x001A},  // 'G' is 0, 'a' is like 'A'
                                           DigitCase{"abcd", 0xABCD}, DigitCase{"ABCD", 0xABCD},
                                           DigitCase{":;<=", 0xABCD},  // ':' to '?' give 10 to 15
                                           DigitCase{">?@ ", 0xEF00},  // '@' and below '0' give 0
                                           DigitCase{"Z/9F",
                                                     0x309F},  // 'Z' - 0x37 = 35, low nibble 3
                                           DigitCase{"\x7F\x80\xFF\x01", 0x8980}));

TEST_F(ReplyStorageTest, BitBytesDecodeByTolerantDigitRule) {
    QueueRead("0x", 0, 1, 8);
    Store(":010104GaaG@9:?00\r\n");
    EXPECT_EQ(PLC_driver.coilArea[0], 0x0A);
    EXPECT_EQ(PLC_driver.coilArea[1], 0xA0);
    EXPECT_EQ(PLC_driver.coilArea[2], 0x09);
    EXPECT_EQ(PLC_driver.coilArea[3], 0xAF);
}

// ---- Completing a bit-in-register write --------------------------------------------------

TEST_F(ReplyStorageTest, ReadBackValueWithBitSetCompletesWriteFrame) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    Store(":0103020001F9\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0001);
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(PLC_driver.sendList.at(1).frameLength, 17);
    EXPECT_EQ(PLC_driver.sendList.at(1).replyLength, 17);
    EXPECT_EQ(PLC_driver.sendList.at(1).var.address, 0x1005);
    EXPECT_EQ(PLC_driver.sendList.at(0).frame, QByteArray(":010301000001FA\r\n"));
}

TEST_F(ReplyStorageTest, StateZeroClearsTheBit) {
    QueueBitWrite(0x1005, 1, Bytes({0}));
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0021);
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000001F7\r\n"));
}

TEST_F(ReplyStorageTest, OtherStateLeavesRegisterAsRead) {
    QueueBitWrite(0x1005, 1, Bytes({2}));
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
}

TEST_F(ReplyStorageTest, BitFifteenSetsHighBitOfRegister) {
    QueueBitWrite(0x100F, 1, Bytes({1}));
    Store(":0103020000FA\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":01060100800078\r\n"));
}

TEST_F(ReplyStorageTest, BitIsTakenFromTheHeadOfWriteList) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    PLC_driver.writeList.first().address = 0x1003;  // bit 3 of the same register
    Store(":0103020000FA\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000008F0\r\n"));
}

TEST_F(ReplyStorageTest, EmptyWriteListPatchesRegisterValueAsRead) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    PLC_driver.writeList.clear();
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
}

TEST_F(ReplyStorageTest, EmptyValueOfHeadPatchesRegisterValueAsRead) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    PLC_driver.writeList.first().value.clear();
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
}

TEST_F(ReplyStorageTest, PatchKeepsTheOtherFieldsOfTheWriteFrame) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    PLC_driver.sendList[1].reserved1 = 5;
    PLC_driver.sendList[1].reserved2 = 6;
    PLC_driver.sendList[1].reserved3 = 7;
    PLC_driver.sendList[1].var.ownerId = 99;
    Store(":0103020001F9\r\n");
    const Protocol &write = PLC_driver.sendList.at(1);
    EXPECT_EQ(write.frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(write.reserved1, 5);
    EXPECT_EQ(write.reserved2, 6);
    EXPECT_EQ(write.reserved3, 7);
    EXPECT_EQ(write.var.ownerId, 99);
    EXPECT_EQ(write.var.direction, 1);
    EXPECT_EQ(write.var.bitWriteMark, 0);
    EXPECT_EQ(write.replyDataStart, 0);
    EXPECT_EQ(write.replyDataLength, 0);
}

TEST_F(ReplyStorageTest, LastRegisterOfReplyIsTheOneTaken) {
    QueueBitWrite(0x1000, 1, Bytes({1}));
    PLC_driver.sendList[0].replyDataLength = 8;
    Store(":01030411110020B6\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x1111);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x101], 0x0020);
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
}

TEST_F(ReplyStorageTest, NoDecodedRegisterPatchesZeroWithBitApplied) {
    QueueBitWrite(0x1005, 1, Bytes({1}));
    Store(":010302");  // the register's characters lie past the end
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0);
    // 01 06 01 00 00 20: sum 0x28, LRC 0xD8.
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000020D8\r\n"));
}

TEST_F(ReplyStorageTest, BitInRegisterReadWithoutSecondFrameOnlyStores) {
    QueueRead("4x_bit", 0x100, 1, 4, -1);
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0021);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
}

TEST_F(ReplyStorageTest, CyclicBitInRegisterReadLeavesFrameBehindItAlone) {
    QueueRead("4x_bit", 0x100, 1, 4, 0);
    Protocol other;
    other.frame = ":01060100000000\r\n";
    other.var = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    PLC_driver.sendList.append(other);
    PLC_driver.writeList.append(other.var);
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0021);
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":01060100000000\r\n"));
}

TEST_F(ReplyStorageTest, PlainHoldingReadWithMarkDoesNotPatch) {
    // Only the "4x_bit" path completes a write.
    QueueRead("4x", 0x100, 1, 4, -1);
    Protocol other;
    other.frame = ":01060100000000\r\n";
    other.var = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    PLC_driver.sendList.append(other);
    PLC_driver.writeList.append(other.var);
    Store(":0103020021D9\r\n");
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":01060100000000\r\n"));
}

// ---- Multi-station mode ------------------------------------------------------------------

TEST_F(ReplyStorageTest, FirstReplyCreatesRecordAndNextReusesIt) {
    info.multiStation = 1;
    QueueRead("4x", 7, 2, 4);
    Store(":0203021234B3\r\n");
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    EXPECT_EQ(PLC_driver.extendList.at(0).station, 2);
    EXPECT_EQ(PLC_driver.extendList.at(0).area, QStringLiteral("4x"));
    EXPECT_EQ(PLC_driver.extendList.at(0).address, 7);
    EXPECT_EQ(PLC_driver.extendList.at(0).data, Bytes({0x34, 0x12}));
    EXPECT_EQ(PLC_driver.holdingRegArea[7], 0);  // the image is not touched

    Store(":02030256782B\r\n");
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    EXPECT_EQ(PLC_driver.extendList.at(0).data, Bytes({0x78, 0x56}));
}

TEST_F(ReplyStorageTest, MultiStationCoilsStoreExactlyTheDataBytes) {
    info.multiStation = 1;
    QueueRead("0x", 16, 3, 4);
    Store(":030102CD012C\r\n");
    ASSERT_EQ(PLC_driver.extendList.size(), 2);
    ASSERT_NE(Record(3, "0x", 16), nullptr);
    ASSERT_NE(Record(3, "0x", 24), nullptr);
    EXPECT_EQ(Record(3, "0x", 16)->data, Bytes({0xCD}));
    EXPECT_EQ(Record(3, "0x", 24)->data, Bytes({0x01}));
    EXPECT_EQ(PLC_driver.coilArea[2], 0);
}

TEST_F(ReplyStorageTest, MultiStationInputsUseTheirOwnArea) {
    info.multiStation = 1;
    QueueRead("1x", 0, 3, 2);
    Store(":030201A555\r\n");
    ASSERT_NE(Record(3, "1x", 0), nullptr);
    EXPECT_EQ(Record(3, "1x", 0)->data, Bytes({0xA5}));
    EXPECT_EQ(Record(3, "0x", 0), nullptr);
}

TEST_F(ReplyStorageTest, MultiStationRegisterFamiliesAreKeyedByPlainArea) {
    info.multiStation = 1;
    QueueRead("3x_double", 50, 4, 8);
    Store(":04040412345678E0\r\n");
    ASSERT_NE(Record(4, "3x", 50), nullptr);
    ASSERT_NE(Record(4, "3x", 51), nullptr);
    EXPECT_EQ(Record(4, "3x", 50)->data, Bytes({0x34, 0x12}));
    EXPECT_EQ(Record(4, "3x", 51)->data, Bytes({0x78, 0x56}));
    EXPECT_EQ(Record(4, "3x_double", 50), nullptr);

    PLC_driver.sendList.clear();
    QueueRead("3x_bit", 9, 4, 4);
    Store(":0404021234B0\r\n");
    ASSERT_NE(Record(4, "3x", 9), nullptr);
    EXPECT_EQ(Record(4, "3x", 9)->data, Bytes({0x34, 0x12}));

    PLC_driver.sendList.clear();
    QueueRead("4x_double", 50, 4, 8);
    Store(":04030412345678E1\r\n");
    ASSERT_NE(Record(4, "4x", 50), nullptr);
    EXPECT_EQ(Record(4, "4x", 51)->data, Bytes({0x78, 0x56}));
    EXPECT_EQ(PLC_driver.extendList.size(), 5);
}

TEST_F(ReplyStorageTest, MultiStationRegisterPastEndOfReplyIsLeftEmpty) {
    info.multiStation = 1;
    QueueRead("4x", 10, 2, 8);
    Store(":0203041234");
    ASSERT_NE(Record(2, "4x", 10), nullptr);
    ASSERT_NE(Record(2, "4x", 11), nullptr);
    EXPECT_EQ(Record(2, "4x", 10)->data, Bytes({0x34, 0x12}));
    EXPECT_TRUE(Record(2, "4x", 11)->data.isEmpty());
}

TEST_F(ReplyStorageTest, MultiStationStationsAreKeptApart) {
    info.multiStation = 1;
    QueueRead("4x", 7, 2, 4);
    Store(":0203021234B3\r\n");
    PLC_driver.sendList.clear();
    QueueRead("4x", 7, 3, 4);
    Store(":03030256782A\r\n");
    ASSERT_EQ(PLC_driver.extendList.size(), 2);
    EXPECT_EQ(Record(2, "4x", 7)->data, Bytes({0x34, 0x12}));
    EXPECT_EQ(Record(3, "4x", 7)->data, Bytes({0x78, 0x56}));
}

TEST_F(ReplyStorageTest, MultiStationUnknownAreaStoresNothing) {
    info.multiStation = 1;
    QueueRead("5x", 7, 2, 4);
    Store(":0203021234B3\r\n");
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
}

TEST_F(ReplyStorageTest, MultiStationBitInRegisterCompletesWrite) {
    info.multiStation = 1;
    QueueBitWrite(0x1005, 1, Bytes({1}));
    Store(":0103020001F9\r\n");
    ASSERT_NE(Record(1, "4x", 0x100), nullptr);
    EXPECT_EQ(Record(1, "4x", 0x100)->data, Bytes({0x01, 0x00}));
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0);
}

}  // namespace
