// SPDX-License-Identifier: MIT
// The eight helpers that move values between the local register image and the host's byte
// arrays: address mapping, host byte order, growth of the output array, and the top and
// bottom of every area (an element outside the image reads as 0, a write to it is dropped).
#include <gtest/gtest.h>

#include <QByteArray>
#include <climits>
#include <cstring>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

class ImageHelpers : public DriverTest {
protected:
    unsigned char *coils() { return PLC_driver.coilArea; }
    unsigned char *inputBits() { return PLC_driver.inputBitArea; }
    unsigned short *inputRegs() { return PLC_driver.inputRegArea; }
    unsigned short *holdingRegs() { return PLC_driver.holdingRegArea; }
};

// ---- Bit areas ----------------------------------------------------------------------------

TEST_F(ImageHelpers, CoilZeroIsTheLowestBitOfTheFirstByte) {
    QByteArray in = Bytes({1});
    SetBitToUC(0, coils(), &in, 1);
    EXPECT_EQ(coils()[0], 0x01);

    QByteArray out;
    GetBitFromUC(out, coils(), 0, 1);
    EXPECT_EQ(out, Bytes({1}));
}

TEST_F(ImageHelpers, CoilThirteenIsBitFiveOfTheSecondByte) {
    QByteArray in = Bytes({1});
    SetBitToUC(13, coils(), &in, 1);
    EXPECT_EQ(coils()[0], 0x00);
    EXPECT_EQ(coils()[1], 0x20);

    QByteArray out;
    GetBitFromUC(out, coils(), 12, 3);
    EXPECT_EQ(out, Bytes({0, 1, 0}));
}

TEST_F(ImageHelpers, Coil65535IsTheTopBitOfByte8191) {
    QByteArray in = Bytes({1});
    SetBitToUC(65535, coils(), &in, 1);
    EXPECT_EQ(coils()[8191], 0x80);
    EXPECT_EQ(coils()[8190], 0x00);
    EXPECT_EQ(coils()[8192], 0x00);

    QByteArray out;
    GetBitFromUC(out, coils(), 65534, 2);
    EXPECT_EQ(out, Bytes({0, 1}));
}

TEST_F(ImageHelpers, OnlyTheValueOneSetsABit) {
    coils()[0] = 0x02;
    QByteArray in = Bytes({1, 2});
    SetBitToUC(0, coils(), &in, 2);
    EXPECT_EQ(coils()[0], 0x01);

    coils()[1] = 0xFF;
    QByteArray others = Bytes({0, 2, 0xFF, 0x81, 0x10, 1, 0x7F, 0x01});
    SetBitToUC(8, coils(), &others, 8);
    EXPECT_EQ(coils()[1], 0xA0);
}

TEST_F(ImageHelpers, BitWritesStopAtTheEndOfTheInput) {
    coils()[0] = 0x18;
    QByteArray in = Bytes({1, 0, 1});
    SetBitToUC(0, coils(), &in, 5);
    // Bits 0 to 2 from the input; bits 3 and 4 keep their values.
    EXPECT_EQ(coils()[0], 0x1D);
    EXPECT_EQ(in, Bytes({1, 0, 1}));
}

TEST_F(ImageHelpers, BitWritesKeepTheOtherBitsOfTheByte) {
    coils()[2] = 0xA5;
    QByteArray in = Bytes({0, 1});
    SetBitToUC(17, coils(), &in, 2);
    // Bit 1 cleared, bit 2 set; the rest of 0xA5 unchanged.
    EXPECT_EQ(coils()[2], 0xA5);
    QByteArray flip = Bytes({1, 0});
    SetBitToUC(17, coils(), &flip, 2);
    EXPECT_EQ(coils()[2], 0xA3);
}

TEST_F(ImageHelpers, DiscreteInputsUseTheirOwnArea) {
    inputBits()[1] = 0x01;
    coils()[1] = 0xFE;
    QByteArray out;
    GetBitFromUC(out, inputBits(), 7, 3);
    EXPECT_EQ(out, Bytes({0, 1, 0}));

    QByteArray in = Bytes({1});
    SetBitToUC(0, inputBits(), &in, 1);
    EXPECT_EQ(inputBits()[0], 0x01);
    EXPECT_EQ(coils()[0], 0x00);
}

TEST_F(ImageHelpers, ProducedBitsAreExactlyZeroOrOne) {
    coils()[0] = 0xF0;
    coils()[1] = 0x0F;
    QByteArray out;
    GetBitFromUC(out, coils(), 0, 16);
    EXPECT_EQ(out, Bytes({0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0}));
}

TEST_F(ImageHelpers, SpareByteHoldsBits65536To65543) {
    coils()[8192] = 0x01;
    QByteArray out;
    GetBitFromUC(out, coils(), 65536, 1);
    EXPECT_EQ(out, Bytes({1}));

    QByteArray in = Bytes({1});
    SetBitToUC(65543, coils(), &in, 1);
    EXPECT_EQ(coils()[8192], 0x81);
    EXPECT_EQ(inputBits()[0], 0x00);
}

TEST_F(ImageHelpers, BitReadsPastTheEndOfTheBitAreaGiveZero) {
    coils()[8192] = 0xFF;
    inputBits()[0] = 0xFF;
    QByteArray out;
    GetBitFromUC(out, coils(), 65540, 8);
    EXPECT_EQ(out, Bytes({1, 1, 1, 1, 0, 0, 0, 0}));

    inputBits()[8192] = 0xFF;
    inputRegs()[0] = 0xFFFF;
    QByteArray outInputs;
    GetBitFromUC(outInputs, inputBits(), 65542, 4);
    EXPECT_EQ(outInputs, Bytes({1, 1, 0, 0}));
}

TEST_F(ImageHelpers, BitWritesPastTheEndOfTheBitAreaAreDropped) {
    QByteArray in = Bytes({1, 1, 1, 1});
    SetBitToUC(65542, coils(), &in, 4);
    EXPECT_EQ(coils()[8192], 0xC0);
    EXPECT_EQ(inputBits()[0], 0x00);

    SetBitToUC(65542, inputBits(), &in, 4);
    EXPECT_EQ(inputBits()[8192], 0xC0);
    EXPECT_EQ(inputRegs()[0], 0x0000);

    SetBitToUC(70000, coils(), &in, 4);
    EXPECT_EQ(inputBits()[0], 0x00);
}

TEST_F(ImageHelpers, NegativeBitAddressesReadZeroAndDropWrites) {
    coils()[0] = 0x01;
    PLC_driver.linkFailed = 0;
    QByteArray out;
    GetBitFromUC(out, coils(), -1, 2);
    EXPECT_EQ(out, Bytes({0, 1}));

    QByteArray in = Bytes({1, 0});
    SetBitToUC(-1, coils(), &in, 2);
    EXPECT_EQ(coils()[0], 0x00);
    EXPECT_EQ(PLC_driver.linkFailed, 0);

    QByteArray none;
    GetBitFromUC(none, coils(), -100, 3);
    EXPECT_EQ(none, Bytes({0, 0, 0}));
}

// ---- Bits inside registers ----------------------------------------------------------------

TEST_F(ImageHelpers, RegisterBit0x1005IsBitFiveOfRegister0x100) {
    QByteArray in = Bytes({1});
    SetBitToUS(0x1005, holdingRegs(), &in, 1);
    EXPECT_EQ(holdingRegs()[0x100], 0x0020);
    EXPECT_EQ(holdingRegs()[0x1005], 0x0000);

    QByteArray out;
    GetBitFromUS(out, holdingRegs(), 0x1004, 3);
    EXPECT_EQ(out, Bytes({0, 1, 0}));
}

TEST_F(ImageHelpers, RegisterBitsRunAcrossRegisters) {
    inputRegs()[0] = 0x8000;
    inputRegs()[1] = 0x0001;
    QByteArray out;
    GetBitFromUS(out, inputRegs(), 14, 4);
    EXPECT_EQ(out, Bytes({0, 1, 1, 0}));

    QByteArray in = Bytes({1, 0, 0, 1});
    SetBitToUS(14, inputRegs(), &in, 4);
    EXPECT_EQ(inputRegs()[0], 0x4000);
    EXPECT_EQ(inputRegs()[1], 0x0002);
}

TEST_F(ImageHelpers, RegisterBitWritesKeepTheOtherBitsAndStopAtTheInputEnd) {
    holdingRegs()[3] = 0xF00F;
    QByteArray in = Bytes({1, 2});
    SetBitToUS(3 * 16 + 7, holdingRegs(), &in, 6);
    // Bit 7 set, bit 8 cleared (2 is not 1), bits 9 to 12 untouched.
    EXPECT_EQ(holdingRegs()[3], 0xF08F);
}

TEST_F(ImageHelpers, HighRegisterBitsReadAsOne) {
    holdingRegs()[2] = 0x8001;
    QByteArray out;
    GetBitFromUS(out, holdingRegs(), 32, 16);
    EXPECT_EQ(out, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST_F(ImageHelpers, TopRegisterBitIsTheLastOfTheArea) {
    holdingRegs()[65535] = 0x8000;
    QByteArray out;
    GetBitFromUS(out, holdingRegs(), 65535 * 16 + 15, 3);
    EXPECT_EQ(out, Bytes({1, 0, 0}));

    QByteArray in = Bytes({1, 1, 1});
    SetBitToUS(65535 * 16 + 15, inputRegs(), &in, 3);
    EXPECT_EQ(inputRegs()[65535], 0x8000);
    EXPECT_EQ(holdingRegs()[0], 0x0000);

    QByteArray past;
    inputRegs()[65535] = 0xFFFF;
    GetBitFromUS(past, inputRegs(), 65536 * 16, 2);
    EXPECT_EQ(past, Bytes({0, 0}));
}

TEST_F(ImageHelpers, NegativeRegisterBitAddressesReadZeroAndDropWrites) {
    holdingRegs()[0] = 0x0001;
    inputRegs()[65535] = 0x0000;
    QByteArray out;
    GetBitFromUS(out, holdingRegs(), -1, 2);
    EXPECT_EQ(out, Bytes({0, 1}));

    QByteArray in = Bytes({1, 0});
    SetBitToUS(-1, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[0], 0x0000);
    EXPECT_EQ(inputRegs()[65535], 0x0000);
}

// ---- Registers ----------------------------------------------------------------------------

TEST_F(ImageHelpers, RegisterComesOutLowByteFirst) {
    holdingRegs()[10] = 0x1234;
    QByteArray out;
    GetWordFromUS(out, holdingRegs(), 10, 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12}));
}

TEST_F(ImageHelpers, RegistersComeOutInAddressOrder) {
    inputRegs()[100] = 0xABCD;
    inputRegs()[101] = 0xFFFF;
    inputRegs()[102] = 0x0080;
    QByteArray out;
    GetWordFromUS(out, inputRegs(), 100, 3);
    EXPECT_EQ(out, Bytes({0xCD, 0xAB, 0xFF, 0xFF, 0x80, 0x00}));
}

TEST_F(ImageHelpers, RegistersGoInLowByteFirstTakenUnsigned) {
    QByteArray in = Bytes({0x34, 0x12, 0xFF, 0xFF, 0x80, 0x7F});
    SetWordToUS(10, holdingRegs(), &in, 3);
    EXPECT_EQ(holdingRegs()[10], 0x1234);
    EXPECT_EQ(holdingRegs()[11], 0xFFFF);
    EXPECT_EQ(holdingRegs()[12], 0x7F80);
    EXPECT_EQ(inputRegs()[10], 0x0000);
}

TEST_F(ImageHelpers, RegisterWritesSkipRegistersTheInputDoesNotCover) {
    holdingRegs()[11] = 0xBEEF;
    QByteArray in = Bytes({0x34, 0x12, 0x78});
    SetWordToUS(10, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[10], 0x1234);
    EXPECT_EQ(holdingRegs()[11], 0xBEEF);
}

TEST_F(ImageHelpers, TopRegisterIsTheLastOfTheArea) {
    inputRegs()[65535] = 0x1234;
    holdingRegs()[0] = 0xBEEF;
    QByteArray out;
    GetWordFromUS(out, inputRegs(), 65535, 2);
    EXPECT_EQ(out, Bytes({0x34, 0x12, 0x00, 0x00}));

    QByteArray in = Bytes({0x78, 0x56, 0x11, 0x22});
    SetWordToUS(65535, inputRegs(), &in, 2);
    EXPECT_EQ(inputRegs()[65535], 0x5678);
    EXPECT_EQ(holdingRegs()[0], 0xBEEF);
}

TEST_F(ImageHelpers, NegativeRegisterAddressesReadZeroAndDropWrites) {
    holdingRegs()[0] = 0x1234;
    inputRegs()[65535] = 0xBEEF;
    QByteArray out;
    GetWordFromUS(out, holdingRegs(), -1, 2);
    EXPECT_EQ(out, Bytes({0x00, 0x00, 0x34, 0x12}));

    QByteArray in = Bytes({1, 2, 3, 4});
    SetWordToUS(-1, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[0], 0x0403);
    EXPECT_EQ(inputRegs()[65535], 0xBEEF);
}

// ---- 32-bit values ------------------------------------------------------------------------

class DoubleRegisters : public ImageHelpers {
protected:
    void SetUp() override {
        ImageHelpers::SetUp();
        holdingRegs()[20] = 0x0001;
        holdingRegs()[21] = 0x86A0;
    }
};

TEST_F(DoubleRegisters, PairComesOutAsLittleEndian32BitValue) {
    QByteArray out;
    GetWordFromUI(out, holdingRegs(), 20, 2);
    EXPECT_EQ(out, Bytes({0xA0, 0x86, 0x01, 0x00}));
}

TEST_F(DoubleRegisters, CountOneYieldsTheLowOrderWord) {
    QByteArray out;
    GetWordFromUI(out, holdingRegs(), 20, 1);
    EXPECT_EQ(out, Bytes({0xA0, 0x86}));
}

TEST_F(DoubleRegisters, OddLastRegisterIsIgnored) {
    QByteArray out;
    GetWordFromUI(out, holdingRegs(), 20, 3);
    EXPECT_EQ(out, Bytes({0xA0, 0x86, 0x01, 0x00}));
}

TEST_F(DoubleRegisters, SeveralPairsComeOutInAddressOrder) {
    holdingRegs()[22] = 0xFFFF;
    holdingRegs()[23] = 0xFFFE;
    QByteArray out;
    GetWordFromUI(out, holdingRegs(), 20, 4);
    EXPECT_EQ(out, Bytes({0xA0, 0x86, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0xFF}));
}

TEST_F(DoubleRegisters, InputRegistersUseTheirOwnArea) {
    inputRegs()[20] = 0x1234;
    inputRegs()[21] = 0x5678;
    QByteArray out;
    GetWordFromUI(out, inputRegs(), 20, 2);
    EXPECT_EQ(out, Bytes({0x78, 0x56, 0x34, 0x12}));
}

TEST_F(ImageHelpers, ValueGoesInHighWordToTheLowerRegister) {
    QByteArray in = Bytes({0xA0, 0x86, 0x01, 0x00});
    SetWordToUI(20, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[20], 0x0001);
    EXPECT_EQ(holdingRegs()[21], 0x86A0);
}

TEST_F(ImageHelpers, ValueWriteOfCountOneChangesNothing) {
    holdingRegs()[20] = 0x1111;
    holdingRegs()[21] = 0x2222;
    QByteArray in = Bytes({0xA0, 0x86, 0x01, 0x00});
    SetWordToUI(20, holdingRegs(), &in, 1);
    EXPECT_EQ(holdingRegs()[20], 0x1111);
    EXPECT_EQ(holdingRegs()[21], 0x2222);
}

TEST_F(ImageHelpers, ValueWritesTakeBytesUnsignedAndSkipIncompletePairs) {
    holdingRegs()[32] = 0x3333;
    holdingRegs()[33] = 0x4444;
    QByteArray in = Bytes({0xFF, 0xFE, 0xFD, 0xFC, 0x01, 0x02, 0x03});
    SetWordToUI(30, holdingRegs(), &in, 4);
    EXPECT_EQ(holdingRegs()[30], 0xFCFD);
    EXPECT_EQ(holdingRegs()[31], 0xFEFF);
    EXPECT_EQ(holdingRegs()[32], 0x3333);
    EXPECT_EQ(holdingRegs()[33], 0x4444);
}

TEST_F(ImageHelpers, ValueReadAtTheTopRegisterReadsZeroAfterTheArea) {
    inputRegs()[65535] = 0x1234;
    holdingRegs()[0] = 0xBEEF;
    QByteArray single;
    GetWordFromUI(single, inputRegs(), 65535, 1);
    EXPECT_EQ(single, Bytes({0x00, 0x00}));

    QByteArray pair;
    GetWordFromUI(pair, inputRegs(), 65535, 2);
    EXPECT_EQ(pair, Bytes({0x00, 0x00, 0x34, 0x12}));

    holdingRegs()[65535] = 0xABCD;
    QByteArray holding;
    GetWordFromUI(holding, holdingRegs(), 65535, 2);
    EXPECT_EQ(holding, Bytes({0x00, 0x00, 0xCD, 0xAB}));
}

TEST_F(ImageHelpers, ValueWriteAtTheTopRegisterKeepsOnlyItsHighWord) {
    holdingRegs()[0] = 0xBEEF;
    QByteArray in = Bytes({0xA0, 0x86, 0x01, 0x00});
    SetWordToUI(65535, inputRegs(), &in, 2);
    EXPECT_EQ(inputRegs()[65535], 0x0001);
    EXPECT_EQ(holdingRegs()[0], 0xBEEF);
}

TEST_F(ImageHelpers, NegativeValueAddressesReadZeroAndDropWrites) {
    holdingRegs()[0] = 0x1234;
    inputRegs()[65535] = 0xBEEF;
    inputRegs()[65534] = 0xCAFE;

    QByteArray single;
    GetWordFromUI(single, holdingRegs(), -1, 1);
    EXPECT_EQ(single, Bytes({0x34, 0x12}));

    QByteArray straddling;
    GetWordFromUI(straddling, holdingRegs(), -1, 2);
    EXPECT_EQ(straddling, Bytes({0x34, 0x12, 0x00, 0x00}));

    QByteArray outside;
    GetWordFromUI(outside, holdingRegs(), -2, 2);
    EXPECT_EQ(outside, Bytes({0x00, 0x00, 0x00, 0x00}));

    QByteArray in = Bytes({0xA0, 0x86, 0x01, 0x00});
    SetWordToUI(-1, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[0], 0x86A0);
    EXPECT_EQ(inputRegs()[65535], 0xBEEF);

    SetWordToUI(-2, holdingRegs(), &in, 2);
    EXPECT_EQ(holdingRegs()[0], 0x86A0);
    EXPECT_EQ(inputRegs()[65534], 0xCAFE);
    EXPECT_EQ(inputRegs()[65535], 0xBEEF);
}

// ---- The host's output array --------------------------------------------------------------

TEST_F(ImageHelpers, OutputKeepsItsBytesBeyondTheLastWritten) {
    holdingRegs()[10] = 0x1234;
    QByteArray out = Bytes({9, 9, 2, 3, 4, 5, 6, 7, 8, 9});
    GetWordFromUS(out, holdingRegs(), 10, 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(ImageHelpers, ShortOutputGrowsToExactlyTheBytesWritten) {
    coils()[0] = 0x05;
    QByteArray bits = Bytes({0x77});
    GetBitFromUC(bits, coils(), 0, 3);
    EXPECT_EQ(bits, Bytes({1, 0, 1}));

    holdingRegs()[0] = 0x0102;
    holdingRegs()[1] = 0x0304;
    QByteArray words = Bytes({0x77, 0x77, 0x77});
    GetWordFromUS(words, holdingRegs(), 0, 2);
    EXPECT_EQ(words, Bytes({0x02, 0x01, 0x04, 0x03}));

    QByteArray regBits;
    GetBitFromUS(regBits, holdingRegs(), 0, 5);
    EXPECT_EQ(regBits, Bytes({0, 1, 0, 0, 0}));

    QByteArray values = Bytes({0x77});
    GetWordFromUI(values, holdingRegs(), 0, 2);
    EXPECT_EQ(values, Bytes({0x04, 0x03, 0x02, 0x01}));
}

TEST_F(ImageHelpers, LongerOutputKeepsItsTailForEveryGetHelper) {
    coils()[0] = 0x01;
    holdingRegs()[0] = 0x0102;
    holdingRegs()[1] = 0x0304;
    const QByteArray filled = Bytes({0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});

    QByteArray bits = filled;
    GetBitFromUC(bits, coils(), 0, 2);
    EXPECT_EQ(bits, Bytes({1, 0, 0xEE, 0xEE, 0xEE, 0xEE}));

    QByteArray regBits = filled;
    GetBitFromUS(regBits, holdingRegs(), 1, 2);
    EXPECT_EQ(regBits, Bytes({1, 0, 0xEE, 0xEE, 0xEE, 0xEE}));

    QByteArray single = filled;
    GetWordFromUI(single, holdingRegs(), 0, 1);
    EXPECT_EQ(single, Bytes({0x04, 0x03, 0xEE, 0xEE, 0xEE, 0xEE}));

    QByteArray odd = filled;
    GetWordFromUI(odd, holdingRegs(), 0, 3);
    EXPECT_EQ(odd, Bytes({0x04, 0x03, 0x02, 0x01, 0xEE, 0xEE}));
}

TEST_F(ImageHelpers, OutputSharedWithAnotherArrayLeavesTheOtherAlone) {
    holdingRegs()[0] = 0x1234;
    const QByteArray original = Bytes({0xEE, 0xEE, 0xEE});
    QByteArray out = original;
    GetWordFromUS(out, holdingRegs(), 0, 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12, 0xEE}));
    EXPECT_EQ(original, Bytes({0xEE, 0xEE, 0xEE}));
}

TEST_F(ImageHelpers, CountBelowOneDoesNothing) {
    coils()[0] = 0xFF;
    holdingRegs()[0] = 0xFFFF;
    holdingRegs()[1] = 0xFFFF;
    for (int count : {0, -1, INT_MIN}) {
        SCOPED_TRACE(count);
        const QByteArray before = Bytes({5, 6, 7});
        QByteArray out = before;
        GetBitFromUC(out, coils(), 0, count);
        GetBitFromUS(out, holdingRegs(), 0, count);
        GetWordFromUS(out, holdingRegs(), 0, count);
        GetWordFromUI(out, holdingRegs(), 0, count);
        EXPECT_EQ(out, before);

        QByteArray empty;
        GetWordFromUS(empty, holdingRegs(), 0, count);
        EXPECT_TRUE(empty.isEmpty());

        QByteArray zeros = Bytes({0, 0, 0, 0});
        SetBitToUC(0, coils(), &zeros, count);
        SetBitToUS(0, holdingRegs(), &zeros, count);
        SetWordToUS(0, holdingRegs(), &zeros, count);
        SetWordToUI(0, holdingRegs(), &zeros, count);
        EXPECT_EQ(coils()[0], 0xFF);
        EXPECT_EQ(holdingRegs()[0], 0xFFFF);
        EXPECT_EQ(holdingRegs()[1], 0xFFFF);
    }
}

TEST_F(ImageHelpers, SetHelpersNeverChangeTheInput) {
    const QByteArray original = Bytes({1, 0, 0xFF, 0x80});
    QByteArray in = original;
    SetBitToUC(0, coils(), &in, 4);
    SetBitToUS(0, holdingRegs(), &in, 4);
    SetWordToUS(0, holdingRegs(), &in, 2);
    SetWordToUI(0, holdingRegs(), &in, 2);
    SetWordToUI(0, holdingRegs(), &in, 8);
    EXPECT_EQ(in, original);
    EXPECT_EQ(in.size(), 4);
}

// ---- Counts and starts far outside the image ------------------------------------------------

TEST_F(ImageHelpers, BitCountLargerThanTheAreaReadsZeroBeyondIt) {
    coils()[0] = 0x01;
    coils()[8192] = 0x80;
    inputBits()[0] = 0xFF;
    QByteArray out;
    GetBitFromUC(out, coils(), 0, 70000);
    ASSERT_EQ(out.size(), 70000);
    EXPECT_EQ(out.at(0), 1);
    EXPECT_EQ(out.at(1), 0);
    EXPECT_EQ(out.at(65543), 1);
    EXPECT_EQ(out.indexOf('\x01', 65544), -1);
}

TEST_F(ImageHelpers, RegisterCountLargerThanTheAreaReadsZeroBeyondIt) {
    holdingRegs()[65535] = 0x1234;
    QByteArray words;
    GetWordFromUS(words, holdingRegs(), 0, 65537);
    ASSERT_EQ(words.size(), 131074);
    EXPECT_EQ(words.mid(131068), Bytes({0x00, 0x00, 0x34, 0x12, 0x00, 0x00}));

    QByteArray values;
    GetWordFromUI(values, holdingRegs(), 0, 65538);
    ASSERT_EQ(values.size(), 131076);
    EXPECT_EQ(values.mid(131068), Bytes({0x34, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));

    QByteArray regBits;
    GetBitFromUS(regBits, holdingRegs(), 65535 * 16, 32);
    ASSERT_EQ(regBits.size(), 32);
    EXPECT_EQ(regBits.left(16), Bytes({0, 0, 1, 0, 1, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(regBits.mid(16), QByteArray(16, '\0'));
}

TEST_F(ImageHelpers, WriteCountsLargerThanTheAreaStayInside) {
    const QByteArray ones(100000, '\x01');
    QByteArray in = ones;
    SetBitToUC(65000, coils(), &in, 100000);
    EXPECT_EQ(coils()[8192], 0xFF);
    EXPECT_EQ(inputBits()[0], 0x00);

    SetBitToUS(65530 * 16, inputRegs(), &in, 100000);
    EXPECT_EQ(inputRegs()[65535], 0xFFFF);
    EXPECT_EQ(holdingRegs()[0], 0x0000);

    SetWordToUS(65500, inputRegs(), &in, 100000);
    EXPECT_EQ(inputRegs()[65535], 0x0101);
    EXPECT_EQ(holdingRegs()[0], 0x0000);

    SetWordToUI(65500, inputRegs(), &in, 100000);
    EXPECT_EQ(holdingRegs()[0], 0x0000);
}

TEST_F(ImageHelpers, ExtremeStartsReadZeroAndDropWrites) {
    std::memset(coils(), 0xFF, sizeof PLC_driver.coilArea);
    std::memset(holdingRegs(), 0xFF, sizeof PLC_driver.holdingRegArea);
    for (int start : {INT_MAX, INT_MAX - 1, INT_MIN, INT_MIN + 1, 1 << 30}) {
        SCOPED_TRACE(start);
        QByteArray bits;
        GetBitFromUC(bits, coils(), start, 2);
        EXPECT_EQ(bits, Bytes({0, 0}));
        QByteArray regBits;
        GetBitFromUS(regBits, holdingRegs(), start, 2);
        EXPECT_EQ(regBits, Bytes({0, 0}));
        QByteArray words;
        GetWordFromUS(words, holdingRegs(), start, 2);
        EXPECT_EQ(words, Bytes({0, 0, 0, 0}));
        QByteArray single;
        GetWordFromUI(single, holdingRegs(), start, 1);
        EXPECT_EQ(single, Bytes({0, 0}));
        QByteArray values;
        GetWordFromUI(values, holdingRegs(), start, 2);
        EXPECT_EQ(values, Bytes({0, 0, 0, 0}));

        QByteArray zeros = Bytes({0, 0, 0, 0});
        SetBitToUC(start, coils(), &zeros, 2);
        SetBitToUS(start, holdingRegs(), &zeros, 2);
        SetWordToUS(start, holdingRegs(), &zeros, 2);
        SetWordToUI(start, holdingRegs(), &zeros, 2);
    }
    const QByteArray allOnes(sizeof PLC_driver.coilArea, '\xFF');
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(coils()), sizeof PLC_driver.coilArea),
              allOnes);
    EXPECT_EQ(holdingRegs()[0], 0xFFFF);
    EXPECT_EQ(holdingRegs()[1], 0xFFFF);
    EXPECT_EQ(holdingRegs()[65534], 0xFFFF);
    EXPECT_EQ(holdingRegs()[65535], 0xFFFF);
}

}  // namespace
