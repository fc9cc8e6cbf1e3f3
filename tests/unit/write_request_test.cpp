// SPDX-License-Identifier: MIT
// Write requests: dispatch by area, coil writes, bit-in-register writes and register writes.
// Every expected frame is written out by hand, LRC included.
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

void ExpectSameVar(const RW_VAR &actual, const RW_VAR &expected) {
    EXPECT_EQ(actual.ownerType, expected.ownerType);
    EXPECT_EQ(actual.ownerId, expected.ownerId);
    EXPECT_EQ(actual.direction, expected.direction);
    EXPECT_EQ(actual.hostParamA, expected.hostParamA);
    EXPECT_EQ(actual.hostParamB, expected.hostParamB);
    EXPECT_EQ(actual.hostParamC, expected.hostParamC);
    EXPECT_EQ(actual.area, expected.area);
    EXPECT_EQ(actual.auxName, expected.auxName);
    EXPECT_EQ(actual.hostParamD, expected.hostParamD);
    EXPECT_EQ(actual.address, expected.address);
    EXPECT_EQ(actual.station, expected.station);
    EXPECT_EQ(actual.count, expected.count);
    EXPECT_EQ(actual.bitWriteMark, expected.bitWriteMark);
    EXPECT_EQ(actual.extraB, expected.extraB);
    EXPECT_EQ(actual.value, expected.value);
}

// A request with every carried field set to something recognisable.
RW_VAR Tagged(RW_VAR v) {
    v.ownerType = 3;
    v.ownerId = 44;
    v.hostParamA = 5;
    v.hostParamB = 6;
    v.hostParamC = 7;
    v.auxName = QStringLiteral("aux");
    v.hostParamD = 8;
    v.extraB = 9;
    return v;
}

class WriteRequestTest : public DriverTest {
protected:
    const Protocol &Queued(int index) { return PLC_driver.sendList.at(index); }
};

// ---- Coil writes -------------------------------------------------------------------------

TEST_F(WriteRequestTest, CoilOnToStation11Coil13IsOneSeventeenCharacterFrame) {
    RW_VAR v = Tagged(MakeVar("0x", 0x13, 0x11, 1, 1, Bytes({1})));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":11050013FF00D8\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 17);
    EXPECT_EQ(Queued(0).replyLength, 17);
    EXPECT_EQ(Queued(0).replyDataStart, 0);
    EXPECT_EQ(Queued(0).replyDataLength, 0);
    ExpectSameVar(Queued(0).var, v);
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
}

TEST_F(WriteRequestTest, CoilValueZeroWritesOff) {
    RW_VAR v = MakeVar("0x", 0x13, 0x11, 1, 1, Bytes({0}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":110500130000D7\r\n"));
}

TEST_F(WriteRequestTest, CoilValueOtherThanOneWritesOff) {
    for (int byte : {2, 0xFF, 0x10}) {
        PLC_driver.sendList.clear();
        RW_VAR v = MakeVar("0x", 0x13, 0x11, 1, 1, Bytes({byte}));
        WriteRegister(&v);
        ASSERT_EQ(PLC_driver.sendList.size(), 1);
        EXPECT_EQ(Queued(0).frame, QByteArray(":110500130000D7\r\n")) << "value byte " << byte;
    }
}

TEST_F(WriteRequestTest, CoilWithoutValueWritesOff) {
    RW_VAR v = MakeVar("0x", 0x13, 0x11, 1, 1);
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":110500130000D7\r\n"));
}

TEST_F(WriteRequestTest, CoilOnlyFirstValueByteCounts) {
    RW_VAR v = MakeVar("0x", 0x13, 0x11, 1, 1, Bytes({1, 0, 0}));
    WriteRegister(&v);
    EXPECT_EQ(Queued(0).frame, QByteArray(":11050013FF00D8\r\n"));
}

TEST_F(WriteRequestTest, CoilBroadcastExpectsNoReplyAndStillUpdatesImage) {
    RW_VAR v = MakeVar("0x", 0x13, 0, 1, 1, Bytes({1}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":00050013FF00E9\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 17);
    EXPECT_EQ(Queued(0).replyLength, 0);
    EXPECT_EQ(Queued(0).replyDataStart, 0);
    EXPECT_EQ(Queued(0).replyDataLength, 0);
    // Coil 0x13 = 19 is bit 3 of byte 2.
    EXPECT_EQ(PLC_driver.coilArea[2], 0x08);
}

TEST_F(WriteRequestTest, CoilAddressAboveSixteenBitsSendsLowSixteenBits) {
    PLC_driver.linkFailed = 1;  // keeps the image out of this test
    RW_VAR v = MakeVar("0x", 0x12345, 1, 1, 1, Bytes({1}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":01052345FF0093\r\n"));
}

TEST_F(WriteRequestTest, StationAboveEightBitsSendsLowByte) {
    RW_VAR v = MakeVar("0x", 0, 0x1F7, 1, 1, Bytes({0}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":F7050000000004\r\n"));
    EXPECT_EQ(Queued(0).replyLength, 17);
}

TEST_F(WriteRequestTest, CoilWriteAppendsBehindFramesAlreadyQueued) {
    Protocol earlier;
    earlier.frame = ":earlier\r\n";
    PLC_driver.sendList.append(earlier);
    RW_VAR v = MakeVar("0x", 0x13, 0x11, 1, 1, Bytes({1}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 2);
    EXPECT_EQ(Queued(0).frame, QByteArray(":earlier\r\n"));
    EXPECT_EQ(Queued(1).frame, QByteArray(":11050013FF00D8\r\n"));
}

// ---- Bit inside a holding register -------------------------------------------------------

TEST_F(WriteRequestTest, BitInRegisterQueuesReadThenPlaceholderWrite) {
    RW_VAR v = Tagged(MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1})));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 2);

    const Protocol &read = Queued(0);
    EXPECT_EQ(read.frame, QByteArray(":010301000001FA\r\n"));
    EXPECT_EQ(read.frameLength, 17);
    EXPECT_EQ(read.replyLength, 15);
    EXPECT_EQ(read.replyDataStart, 7);
    EXPECT_EQ(read.replyDataLength, 4);
    RW_VAR readVar = v;
    readVar.direction = 0;
    readVar.address = 0x100;
    readVar.bitWriteMark = -1;
    ExpectSameVar(read.var, readVar);

    const Protocol &write = Queued(1);
    EXPECT_EQ(write.frame, QByteArray(":01060100000000\r\n"));
    EXPECT_EQ(write.frameLength, 17);
    EXPECT_EQ(write.replyLength, 17);
    EXPECT_EQ(write.replyDataStart, 0);
    EXPECT_EQ(write.replyDataLength, 0);
    RW_VAR writeVar = v;
    writeVar.direction = 1;
    writeVar.address = 0x1005;
    writeVar.bitWriteMark = 0;
    ExpectSameVar(write.var, writeVar);

    EXPECT_EQ(info.framesInRequest, 2);
    EXPECT_EQ(info.framesDone, 0);
}

TEST_F(WriteRequestTest, BitInRegisterDoesNotTouchImageAtBuildTime) {
    PLC_driver.holdingRegArea[0x100] = 0x1234;
    RW_VAR v = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    WriteRegister(&v);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x1234);
}

TEST_F(WriteRequestTest, BitInRegisterToBroadcastQueuesNothingAndLeavesCounters) {
    info.framesInRequest = 9;
    info.framesDone = 8;
    RW_VAR v = MakeVar("4x_bit", 0x1005, 0, 1, 1, Bytes({1}));
    WriteBool_WordOfBit(&v);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(info.framesInRequest, 9);
    EXPECT_EQ(info.framesDone, 8);

    WriteRegister(&v);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(info.framesInRequest, 9);
    EXPECT_EQ(info.framesDone, 8);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0);
}

TEST_F(WriteRequestTest, BitInRegisterHighRegisterAndBitFifteen) {
    // Register 0xABCD, bit 15: address 0xABCD * 16 + 15 = 0xABCDF.
    RW_VAR v = MakeVar("4x_bit", 0xABCDF, 2, 1, 1, Bytes({0}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 2);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0203ABCD000182\r\n"));
    EXPECT_EQ(Queued(0).var.address, 0xABCD);
    EXPECT_EQ(Queued(1).frame, QByteArray(":0206ABCD000000\r\n"));
    EXPECT_EQ(Queued(1).var.address, 0xABCDF);
}

// ---- Image update at build time ----------------------------------------------------------

TEST_F(WriteRequestTest, WithLinkUpCoilAndRegisterWritesUpdateImage) {
    RW_VAR coil = MakeVar("0x", 13, 1, 1, 1, Bytes({1}));
    RW_VAR reg = MakeVar("4x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    RW_VAR dbl = MakeVar("4x_double", 20, 1, 2, 1, Bytes({0xA0, 0x86, 0x01, 0x00}));
    WriteRegister(&coil);
    WriteRegister(&reg);
    WriteRegister(&dbl);
    EXPECT_EQ(PLC_driver.sendList.size(), 3);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x20);  // coil 13 is bit 5 of byte 1
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[20], 0x0001);
    EXPECT_EQ(PLC_driver.holdingRegArea[21], 0x86A0);
}

TEST_F(WriteRequestTest, WithLinkFailedNoWriteUpdatesImageButFramesAreQueued) {
    PLC_driver.linkFailed = 1;
    RW_VAR coil = MakeVar("0x", 13, 1, 1, 1, Bytes({1}));
    RW_VAR reg = MakeVar("4x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    RW_VAR dbl = MakeVar("4x_double", 20, 1, 2, 1, Bytes({0xA0, 0x86, 0x01, 0x00}));
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    WriteRegister(&coil);
    WriteRegister(&reg);
    WriteRegister(&dbl);
    WriteRegister(&bit);
    EXPECT_EQ(PLC_driver.sendList.size(), 5);
    EXPECT_EQ(PLC_driver.coilArea[1], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[20], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[21], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0);
}

TEST_F(WriteRequestTest, CoilWriteOffClearsOnlyItsBitInImage) {
    PLC_driver.coilArea[1] = 0xFF;
    RW_VAR coil = MakeVar("0x", 13, 1, 1, 1, Bytes({0}));
    WriteRegister(&coil);
    EXPECT_EQ(PLC_driver.coilArea[1], 0xDF);
}

// ---- Register writes ---------------------------------------------------------------------

TEST_F(WriteRequestTest, SingleHoldingRegisterUsesFunctionSix) {
    RW_VAR v = Tagged(MakeVar("4x", 1, 1, 1, 1, Bytes({0x03, 0x00})));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":010600010003F5\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 17);
    EXPECT_EQ(Queued(0).replyLength, 17);
    EXPECT_EQ(Queued(0).replyDataStart, 0);
    EXPECT_EQ(Queued(0).replyDataLength, 0);
    ExpectSameVar(Queued(0).var, v);
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 0x0003);
}

TEST_F(WriteRequestTest, TwoHoldingRegistersUseFunctionSixteenHighByteFirst) {
    RW_VAR v = MakeVar("4x", 0x10, 1, 2, 1, Bytes({0x34, 0x12, 0x78, 0x56}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0110001000020412345678C5\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 27);
    EXPECT_EQ(Queued(0).replyLength, 17);
    EXPECT_EQ(Queued(0).replyDataStart, 0);
    EXPECT_EQ(Queued(0).replyDataLength, 0);
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x10], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x11], 0x5678);
}

TEST_F(WriteRequestTest, DoubleSendsHighHalfToLowerRegister) {
    RW_VAR v = MakeVar("4x_double", 0x20, 1, 2, 1, Bytes({0x78, 0x56, 0x34, 0x12}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0110002000020412345678B5\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 27);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x20], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x21], 0x5678);
}

TEST_F(WriteRequestTest, TwoDoublesInOneFrame) {
    // 0x11223344 and 0x55667788, least significant byte first.
    RW_VAR v =
        MakeVar("4x_double", 0, 1, 4, 1, Bytes({0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0110000000040811223344556677887F\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 35);
}

TEST_F(WriteRequestTest, DoubleWithCountOneIsSingleRegisterWriteOfFirstTwoBytes) {
    RW_VAR v = MakeVar("4x_double", 0x20, 1, 1, 1, Bytes({0x78, 0x56, 0x34, 0x12}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0106002056780B\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 17);
    EXPECT_EQ(Queued(0).replyLength, 17);
    // A 32-bit value of one register writes nothing into the image.
    EXPECT_EQ(PLC_driver.holdingRegArea[0x20], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x21], 0);
}

TEST_F(WriteRequestTest, CountZeroIsNineteenCharacterFrameWithoutData) {
    RW_VAR v = MakeVar("4x", 5, 1, 0, 1, Bytes({0x34, 0x12}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":01100005000000EA\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 19);
    EXPECT_EQ(Queued(0).replyLength, 17);
    EXPECT_EQ(PLC_driver.holdingRegArea[5], 0);
}

TEST_F(WriteRequestTest, DoubleWithCountThreeFillsOnlyFirstTwoRegisters) {
    RW_VAR v = MakeVar("4x_double", 0x20, 1, 3, 1, Bytes({0x78, 0x56, 0x34, 0x12, 0xAA, 0xBB}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    // Quantity 3, byte count 6, the third register's data characters are zeros.
    EXPECT_EQ(Queued(0).frame, QByteArray(":01100020000306123456780000B2\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 31);
}

TEST_F(WriteRequestTest, HoldingRegistersNotCoveredByValueAreSentAsZeros) {
    RW_VAR v = MakeVar("4x", 0, 1, 3, 1, Bytes({0x34, 0x12, 0x78, 0x56}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":01100000000306123456780000D2\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 31);
}

TEST_F(WriteRequestTest, HoldingRegisterWithOnlyItsLowByteIsSkipped) {
    RW_VAR v = MakeVar("4x", 0, 1, 3, 1, Bytes({0x34, 0x12, 0x78, 0x56, 0x99}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":01100000000306123456780000D2\r\n"));
}

TEST_F(WriteRequestTest, SingleRegisterWithOneValueByteSendsZeros) {
    RW_VAR v = MakeVar("4x", 1, 1, 1, 1, Bytes({0x05}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":010600010000F8\r\n"));
    EXPECT_EQ(Queued(0).frameLength, 17);
}

TEST_F(WriteRequestTest, BroadcastRegisterWriteExpectsNoReply) {
    RW_VAR v = MakeVar("4x", 1, 0, 1, 1, Bytes({0x03, 0x00}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":000600010003F6\r\n"));
    EXPECT_EQ(Queued(0).replyLength, 0);
    EXPECT_EQ(Queued(0).replyDataStart, 0);
    EXPECT_EQ(Queued(0).replyDataLength, 0);
}

TEST_F(WriteRequestTest, BroadcastMultipleRegisterWriteExpectsNoReply) {
    RW_VAR v = MakeVar("4x", 0x10, 0, 2, 1, Bytes({0x34, 0x12, 0x78, 0x56}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0010001000020412345678C6\r\n"));
    EXPECT_EQ(Queued(0).replyLength, 0);
}

TEST_F(WriteRequestTest, MultiRegisterWriteOfAnyOtherAreaUsesThirtyTwoBitLayout) {
    // "3x" and an unknown name are not refused here; both get the 32-bit layout.
    for (const char *name : {"3x", "3x_double", "zz"}) {
        PLC_driver.sendList.clear();
        RW_VAR v = MakeVar(name, 0x20, 1, 2, 1, Bytes({0x78, 0x56, 0x34, 0x12}));
        WriteAnalog(&v);
        ASSERT_EQ(PLC_driver.sendList.size(), 1) << name;
        EXPECT_EQ(Queued(0).frame, QByteArray(":0110002000020412345678B5\r\n")) << name;
    }
}

TEST_F(WriteRequestTest, InputRegisterWriteThroughDispatchUpdatesInputImageRegisterWise) {
    // The wire gets the 32-bit layout, the image gets "3x" registers, low byte first.
    RW_VAR v = MakeVar("3x", 0x20, 1, 2, 1, Bytes({0x78, 0x56, 0x34, 0x12}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0110002000020412345678B5\r\n"));
    EXPECT_EQ(PLC_driver.inputRegArea[0x20], 0x5678);
    EXPECT_EQ(PLC_driver.inputRegArea[0x21], 0x1234);
}

TEST_F(WriteRequestTest, UnknownAreaSingleRegisterIsFunctionSix) {
    RW_VAR v = MakeVar("5x", 1, 1, 1, 1, Bytes({0x03, 0x00}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":010600010003F5\r\n"));
}

TEST_F(WriteRequestTest, RegisterAddressAboveSixteenBitsSendsLowSixteenBits) {
    PLC_driver.linkFailed = 1;  // keeps the image out of this test
    RW_VAR v = MakeVar("4x", 0x12345, 1, 1, 1, Bytes({0x03, 0x00}));
    WriteRegister(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":0106234500038E\r\n"));
}

TEST_F(WriteRequestTest, NegativeCountIsFunctionSixteenWithoutData) {
    RW_VAR v = MakeVar("4x", 0, 1, -1, 1, Bytes({0x34, 0x12}));
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Queued(0).frame, QByteArray(":01100000FFFFFEF3\r\n"));
}

TEST_F(WriteRequestTest, CountAboveSixteenBitsCarriesEveryRegister) {
    RW_VAR v = MakeVar("4x", 0, 1, 70000, 1);
    WriteAnalog(&v);
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    const QByteArray &frame = Queued(0).frame;
    // Quantity 70000 & 0xFFFF = 0x1170, byte count (140000 & 0xFF) = 0xE0; zeros as data.
    EXPECT_EQ(frame.size(), 19 + 4 * 70000);
    EXPECT_EQ(Queued(0).frameLength, frame.size());
    EXPECT_TRUE(frame.startsWith(":011000001170E0000000"));
    // 01 + 10 + 11 + 70 + E0 = 0x172: LRC 0x8E.
    EXPECT_TRUE(frame.endsWith("00008E\r\n"));
}

// ---- The placeholder patch ---------------------------------------------------------------

TEST_F(WriteRequestTest, PatchPutsValueAndLrcIntoPlaceholder) {
    Protocol write;
    write.frame = ":01060100000000\r\n";
    write.frameLength = 17;
    write.replyLength = 17;
    write.var = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    write.reserved1 = 5;
    write.reserved2 = 6;
    write.reserved3 = 7;
    PatchBitWriteFrame(write, 0x0021);
    EXPECT_EQ(write.frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(write.frameLength, 17);
    EXPECT_EQ(write.replyLength, 17);
    EXPECT_EQ(write.reserved1, 5);
    EXPECT_EQ(write.reserved2, 6);
    EXPECT_EQ(write.reserved3, 7);
}

TEST_F(WriteRequestTest, PatchWithHighByteValue) {
    Protocol write;
    write.frame = ":01060100000000\r\n";
    write.var = MakeVar("4x_bit", 0x100F, 1, 1, 1, Bytes({1}));
    PatchBitWriteFrame(write, 0x8000);
    EXPECT_EQ(write.frame, QByteArray(":01060100800078\r\n"));
}

}  // namespace
