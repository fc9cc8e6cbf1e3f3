// SPDX-License-Identifier: MIT
// The host's reads of current values: from the local register image with one station, from
// the per-station records with several.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <climits>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

QString Name(const char *areaName) {
    return QString::fromLatin1(areaName);
}

// ---- One station: the image ---------------------------------------------------------------

using SingleStationRead = DriverTest;

TEST_F(SingleStationRead, NegativeAddressIsRefusedAndLeavesOutputAlone) {
    PLC_driver.holdingRegArea[0] = 0x1234;
    QByteArray out = Bytes({7, 8});
    EXPECT_EQ(GetRegisterData(Name("4x"), -1, 1, out, 1), 0);
    EXPECT_EQ(out, Bytes({7, 8}));
    EXPECT_EQ(GetRegisterData(Name("0x"), INT_MIN, 1, out, 1), 0);
    EXPECT_EQ(out, Bytes({7, 8}));
}

TEST_F(SingleStationRead, UnknownAreaReturnsOneAndLeavesOutputAlone) {
    PLC_driver.holdingRegArea[0] = 0x1234;
    for (const char *name : {"5x", "4X", "", "4x_Double", "4x "}) {
        SCOPED_TRACE(name);
        QByteArray out = Bytes({7, 8});
        EXPECT_EQ(GetRegisterData(Name(name), 0, 1, out, 1), 1);
        EXPECT_EQ(out, Bytes({7, 8}));
    }
}

TEST_F(SingleStationRead, CountBelowOneReturnsOneAndLeavesOutputAlone) {
    PLC_driver.holdingRegArea[0] = 0x1234;
    for (const char *name :
         {"0x", "1x", "3x", "4x", "3x_bit", "4x_bit", "3x_double", "4x_double"}) {
        SCOPED_TRACE(name);
        QByteArray out = Bytes({7, 8});
        EXPECT_EQ(GetRegisterData(Name(name), 0, 1, out, 0), 1);
        EXPECT_EQ(GetRegisterData(Name(name), 0, 1, out, -3), 1);
        EXPECT_EQ(out, Bytes({7, 8}));
    }
}

TEST_F(SingleStationRead, CoilsAcrossAByteBoundary) {
    PLC_driver.coilArea[0] = 0x80;
    PLC_driver.coilArea[1] = 0x01;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("0x"), 6, 1, out, 3), 1);
    EXPECT_EQ(out, Bytes({0, 1, 1}));
}

TEST_F(SingleStationRead, DiscreteInputsComeFromTheirOwnArea) {
    PLC_driver.inputBitArea[0] = 0x80;
    PLC_driver.inputBitArea[1] = 0x01;
    PLC_driver.coilArea[0] = 0x7F;
    PLC_driver.coilArea[1] = 0xFE;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("1x"), 6, 1, out, 3), 1);
    EXPECT_EQ(out, Bytes({0, 1, 1}));
}

TEST_F(SingleStationRead, RegisterBitsOfEachRegisterTable) {
    PLC_driver.inputRegArea[0x100] = 0x0020;
    PLC_driver.holdingRegArea[0x100] = 0x0200;
    QByteArray input;
    EXPECT_EQ(GetRegisterData(Name("3x_bit"), 0x1004, 1, input, 3), 1);
    EXPECT_EQ(input, Bytes({0, 1, 0}));
    QByteArray holding;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0x1008, 1, holding, 3), 1);
    EXPECT_EQ(holding, Bytes({0, 1, 0}));
}

TEST_F(SingleStationRead, RegistersOfEachRegisterTable) {
    PLC_driver.inputRegArea[10] = 0x1234;
    PLC_driver.inputRegArea[11] = 0xABCD;
    PLC_driver.holdingRegArea[10] = 0x5678;
    QByteArray input;
    EXPECT_EQ(GetRegisterData(Name("3x"), 10, 1, input, 2), 1);
    EXPECT_EQ(input, Bytes({0x34, 0x12, 0xCD, 0xAB}));
    QByteArray holding;
    EXPECT_EQ(GetRegisterData(Name("4x"), 10, 1, holding, 1), 1);
    EXPECT_EQ(holding, Bytes({0x78, 0x56}));
}

TEST_F(SingleStationRead, DoublesOfEachRegisterTable) {
    PLC_driver.inputRegArea[20] = 0x0001;
    PLC_driver.inputRegArea[21] = 0x86A0;
    PLC_driver.holdingRegArea[20] = 0x1234;
    PLC_driver.holdingRegArea[21] = 0x5678;
    QByteArray input;
    EXPECT_EQ(GetRegisterData(Name("3x_double"), 20, 1, input, 2), 1);
    EXPECT_EQ(input, Bytes({0xA0, 0x86, 0x01, 0x00}));
    QByteArray holding;
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 20, 1, holding, 2), 1);
    EXPECT_EQ(holding, Bytes({0x78, 0x56, 0x34, 0x12}));
}

TEST_F(SingleStationRead, DoubleWithCountOneYieldsTheLowOrderWord) {
    PLC_driver.holdingRegArea[20] = 0x1234;
    PLC_driver.holdingRegArea[21] = 0x5678;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 20, 1, out, 1), 1);
    EXPECT_EQ(out, Bytes({0x78, 0x56}));
}

TEST_F(SingleStationRead, StationArgumentAndPerStationRecordsAreIgnored) {
    PLC_driver.holdingRegArea[9] = 0x1234;
    FindOrCreateExtendVar(3, Name("4x"), 9).data = Bytes({0x11, 0x22, 0, 0});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 3, out, 1), 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12}));
    EXPECT_EQ(PLC_driver.extendList.size(), 1);
}

TEST_F(SingleStationRead, PartlyFilledOutputKeepsItsTail) {
    PLC_driver.holdingRegArea[0] = 0x1234;
    QByteArray out = Bytes({0xEE, 0xEE, 0xEE, 0xEE});
    EXPECT_EQ(GetRegisterData(Name("4x"), 0, 1, out, 1), 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12, 0xEE, 0xEE}));
}

TEST_F(SingleStationRead, ReadingDoesNotChangeTheImage) {
    PLC_driver.coilArea[0] = 0x5A;
    PLC_driver.holdingRegArea[0] = 0x1234;
    QByteArray out = Bytes({1, 1, 1, 1});
    GetRegisterData(Name("0x"), 0, 1, out, 8);
    GetRegisterData(Name("4x"), 0, 1, out, 1);
    EXPECT_EQ(PLC_driver.coilArea[0], 0x5A);
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0x1234);
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
}

// ---- Several stations: per-station records ------------------------------------------------

class MultiStationRead : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        info.multiStation = 1;
    }
    static void ExpectRecord(int index, int station, const char *areaName, int address,
                             const QByteArray &data) {
        ASSERT_LT(index, PLC_driver.extendList.size());
        const EXTENDVAR &record = PLC_driver.extendList.at(index);
        EXPECT_EQ(record.station, station);
        EXPECT_EQ(record.area, Name(areaName));
        EXPECT_EQ(record.address, address);
        EXPECT_EQ(record.data, data);
    }
};

TEST_F(MultiStationRead, FirstReadRegistersTheAddressAndReadsZero) {
    PLC_driver.holdingRegArea[9] = 0x1234;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 3, out, 1), 1);
    EXPECT_EQ(out, Bytes({0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    ExpectRecord(0, 3, "4x", 9, Bytes({0, 0, 0, 0}));

    QByteArray again = Bytes({5, 5});
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 3, again, 1), 1);
    EXPECT_EQ(again, Bytes({0, 0}));
    EXPECT_EQ(PLC_driver.extendList.size(), 1);
}

TEST_F(MultiStationRead, RegistersComeFromTheRecordOfTheirStation) {
    FindOrCreateExtendVar(3, Name("4x"), 9).data = Bytes({0x34, 0x12, 0, 0});
    FindOrCreateExtendVar(4, Name("4x"), 9).data = Bytes({0x78, 0x56});
    FindOrCreateExtendVar(3, Name("3x"), 9).data = Bytes({0xCD, 0xAB});
    QByteArray three;
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 3, three, 1), 1);
    EXPECT_EQ(three, Bytes({0x34, 0x12}));
    QByteArray four;
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 4, four, 1), 1);
    EXPECT_EQ(four, Bytes({0x78, 0x56}));
    QByteArray input;
    EXPECT_EQ(GetRegisterData(Name("3x"), 9, 3, input, 1), 1);
    EXPECT_EQ(input, Bytes({0xCD, 0xAB}));
    EXPECT_EQ(PLC_driver.extendList.size(), 3);
}

TEST_F(MultiStationRead, SuccessiveRegistersHaveOneRecordEach) {
    FindOrCreateExtendVar(2, Name("4x"), 100).data = Bytes({0x01, 0x02});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x"), 99, 2, out, 3), 1);
    EXPECT_EQ(out, Bytes({0, 0, 0x01, 0x02, 0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 3);
    ExpectRecord(0, 2, "4x", 100, Bytes({0x01, 0x02}));
    ExpectRecord(1, 2, "4x", 99, Bytes({0, 0, 0, 0}));
    ExpectRecord(2, 2, "4x", 101, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, RegisterRecordShorterThanTwoBytesReadsZero) {
    FindOrCreateExtendVar(1, Name("3x"), 5).data = Bytes({0x77});
    FindOrCreateExtendVar(1, Name("3x"), 6).data = QByteArray();
    QByteArray out = Bytes({9, 9, 9, 9, 9});
    EXPECT_EQ(GetRegisterData(Name("3x"), 5, 1, out, 2), 1);
    EXPECT_EQ(out, Bytes({0, 0, 0, 0, 9}));
}

TEST_F(MultiStationRead, CoilsComeFromTheRecordOfTheirGroupOfEight) {
    FindOrCreateExtendVar(2, Name("0x"), 8).data = Bytes({0x05, 0xFF});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("0x"), 8, 2, out, 3), 1);
    EXPECT_EQ(out, Bytes({1, 0, 1}));
    EXPECT_EQ(PLC_driver.extendList.size(), 1);

    QByteArray across;
    EXPECT_EQ(GetRegisterData(Name("0x"), 6, 2, across, 4), 1);
    EXPECT_EQ(across, Bytes({0, 0, 1, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 2);
    ExpectRecord(1, 2, "0x", 0, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, FirstReadOfCoil13RegistersItsGroup) {
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("0x"), 13, 6, out, 1), 1);
    EXPECT_EQ(out, Bytes({0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    ExpectRecord(0, 6, "0x", 8, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, DiscreteInputsAreKeptApartFromCoils) {
    FindOrCreateExtendVar(2, Name("0x"), 0).data = Bytes({0xFF});
    FindOrCreateExtendVar(2, Name("1x"), 0).data = Bytes({0x80});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("1x"), 6, 2, out, 2), 1);
    EXPECT_EQ(out, Bytes({0, 1}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
}

TEST_F(MultiStationRead, BitRecordWithoutDataReadsZero) {
    FindOrCreateExtendVar(2, Name("1x"), 0).data = QByteArray();
    QByteArray out = Bytes({1, 1});
    EXPECT_EQ(GetRegisterData(Name("1x"), 0, 2, out, 2), 1);
    EXPECT_EQ(out, Bytes({0, 0}));
}

TEST_F(MultiStationRead, RegisterBit0x1009IsBitOneOfTheHighByte) {
    FindOrCreateExtendVar(5, Name("4x"), 0x100).data = Bytes({0x00, 0x02});
    QByteArray high;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0x1009, 5, high, 1), 1);
    EXPECT_EQ(high, Bytes({1}));
    QByteArray low;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0x1001, 5, low, 1), 1);
    EXPECT_EQ(low, Bytes({0}));
    EXPECT_EQ(PLC_driver.extendList.size(), 1);

    FindOrCreateExtendVar(5, Name("4x"), 0x100).data = Bytes({0x02, 0x00});
    QByteArray swapped;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0x1001, 5, swapped, 9), 1);
    EXPECT_EQ(swapped, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(MultiStationRead, RegisterBitsUseThePlainRegisterRecord) {
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("3x_bit"), 0x1009, 4, out, 1), 1);
    EXPECT_EQ(out, Bytes({0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    ExpectRecord(0, 4, "3x", 0x100, Bytes({0, 0, 0, 0}));

    QByteArray holding;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0x100F, 4, holding, 2), 1);
    EXPECT_EQ(holding, Bytes({0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 3);
    ExpectRecord(1, 4, "4x", 0x100, Bytes({0, 0, 0, 0}));
    ExpectRecord(2, 4, "4x", 0x101, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, RegisterBitOfAMissingByteReadsZero) {
    FindOrCreateExtendVar(5, Name("3x"), 0).data = Bytes({0xFF});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("3x_bit"), 7, 5, out, 2), 1);
    EXPECT_EQ(out, Bytes({1, 0}));
}

TEST_F(MultiStationRead, HighBitOfADataByteReadsAsOne) {
    FindOrCreateExtendVar(5, Name("4x"), 0).data = Bytes({0x80, 0x80});
    FindOrCreateExtendVar(5, Name("0x"), 0).data = Bytes({0x80});
    QByteArray bits;
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 7, 5, bits, 9), 1);
    EXPECT_EQ(bits, Bytes({1, 0, 0, 0, 0, 0, 0, 0, 1}));
    QByteArray coil;
    EXPECT_EQ(GetRegisterData(Name("0x"), 7, 5, coil, 1), 1);
    EXPECT_EQ(coil, Bytes({1}));
}

TEST_F(MultiStationRead, DoublePairsTakeTheLowOrderWordFromTheHigherRegister) {
    FindOrCreateExtendVar(1, Name("4x"), 20).data = Bytes({0x01, 0x00});
    FindOrCreateExtendVar(1, Name("4x"), 21).data = Bytes({0xA0, 0x86});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 20, 1, out, 2), 1);
    EXPECT_EQ(out, Bytes({0xA0, 0x86, 0x01, 0x00}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);

    QByteArray odd;
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 20, 1, odd, 3), 1);
    EXPECT_EQ(odd, Bytes({0xA0, 0x86, 0x01, 0x00}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
}

TEST_F(MultiStationRead, InputDoublesUseTheInputRegisterRecords) {
    FindOrCreateExtendVar(1, Name("3x"), 0).data = Bytes({0x34, 0x12});
    FindOrCreateExtendVar(1, Name("3x"), 1).data = Bytes({0x78, 0x56});
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("3x_double"), 0, 1, out, 4), 1);
    EXPECT_EQ(out, Bytes({0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 4);
    ExpectRecord(2, 1, "3x", 3, Bytes({0, 0, 0, 0}));
    ExpectRecord(3, 1, "3x", 2, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, DoubleWithCountOneYieldsNothing) {
    FindOrCreateExtendVar(1, Name("4x"), 20).data = Bytes({0x01, 0x00});
    FindOrCreateExtendVar(1, Name("4x"), 21).data = Bytes({0xA0, 0x86});
    QByteArray out = Bytes({7, 8});
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 20, 1, out, 1), 1);
    EXPECT_EQ(out, Bytes({7, 8}));
    QByteArray fresh;
    EXPECT_EQ(GetRegisterData(Name("3x_double"), 40, 1, fresh, 1), 1);
    EXPECT_TRUE(fresh.isEmpty());
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
}

TEST_F(MultiStationRead, UnknownAreaAndRefusedReadsRegisterNothing) {
    QByteArray out = Bytes({7, 8});
    EXPECT_EQ(GetRegisterData(Name("5x"), 0, 1, out, 1), 1);
    EXPECT_EQ(GetRegisterData(Name("4x"), -1, 1, out, 1), 0);
    EXPECT_EQ(GetRegisterData(Name("0x"), 0, 1, out, 0), 1);
    EXPECT_EQ(GetRegisterData(Name("4x_bit"), 0, 1, out, -1), 1);
    EXPECT_EQ(GetRegisterData(Name("4x"), 0, 1, out, 0), 1);
    EXPECT_EQ(out, Bytes({7, 8}));
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
}

TEST_F(MultiStationRead, ImageIsNotConsulted) {
    PLC_driver.coilArea[0] = 0xFF;
    PLC_driver.holdingRegArea[0] = 0x1234;
    PLC_driver.holdingRegArea[1] = 0x5678;
    QByteArray bits;
    EXPECT_EQ(GetRegisterData(Name("0x"), 0, 1, bits, 2), 1);
    EXPECT_EQ(bits, Bytes({0, 0}));
    QByteArray value;
    EXPECT_EQ(GetRegisterData(Name("4x_double"), 0, 1, value, 2), 1);
    EXPECT_EQ(value, Bytes({0, 0, 0, 0}));
}

TEST_F(MultiStationRead, PartlyFilledOutputKeepsItsTail) {
    FindOrCreateExtendVar(1, Name("4x"), 0).data = Bytes({0x34, 0x12});
    QByteArray out = Bytes({0xEE, 0xEE, 0xEE, 0xEE});
    EXPECT_EQ(GetRegisterData(Name("4x"), 0, 1, out, 1), 1);
    EXPECT_EQ(out, Bytes({0x34, 0x12, 0xEE, 0xEE}));
}

TEST_F(MultiStationRead, LookupFindsRecordsCreatedByEarlierReads) {
    QByteArray out;
    GetRegisterData(Name("4x"), 9, 3, out, 1);
    EXTENDVAR &record = FindOrCreateExtendVar(3, Name("4x"), 9);
    EXPECT_EQ(PLC_driver.extendList.size(), 1);
    record.data = Bytes({0x22, 0x11});
    QByteArray after;
    EXPECT_EQ(GetRegisterData(Name("4x"), 9, 3, after, 1), 1);
    EXPECT_EQ(after, Bytes({0x22, 0x11}));
}

TEST_F(MultiStationRead, ManyRecordsAreFoundAgainWithoutDuplicates) {
    for (int address = 0; address < 300; ++address) {
        FindOrCreateExtendVar(address % 3, Name("4x"), address).data =
            Bytes({address & 0xFF, address >> 8});
    }
    ASSERT_EQ(PLC_driver.extendList.size(), 300);
    QByteArray out;
    EXPECT_EQ(GetRegisterData(Name("4x"), 257, 257 % 3, out, 1), 1);
    EXPECT_EQ(out, Bytes({0x01, 0x01}));
    QByteArray other;
    EXPECT_EQ(GetRegisterData(Name("4x"), 257, 0, other, 1), 1);
    EXPECT_EQ(other, Bytes({0, 0}));
    EXPECT_EQ(PLC_driver.extendList.size(), 301);
}

}  // namespace
