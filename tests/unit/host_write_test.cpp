// SPDX-License-Identifier: MIT
// Host writes: SetRegisterData turns a host value into write requests split at the frame
// limit, one request per bit for bit writes, and keeps the cache in step.
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

class HostWriteTest : public DriverTest {
protected:
    const RW_VAR &Queued(int index) { return PLC_driver.writeList.at(index); }

    // Fields that every request built by SetRegisterData carries.
    void ExpectHostRequest(const RW_VAR &v, const char *areaName, int station) {
        const RW_VAR fresh;
        EXPECT_EQ(v.direction, 1);
        EXPECT_EQ(v.area, QLatin1String(areaName));
        EXPECT_TRUE(v.auxName.isEmpty());
        EXPECT_EQ(v.station, station);
        EXPECT_EQ(v.bitWriteMark, 0);
        EXPECT_EQ(v.extraB, 0);
        EXPECT_EQ(v.hostParamA, 21);
        EXPECT_EQ(v.hostParamB, 22);
        EXPECT_EQ(v.ownerType, fresh.ownerType);
        EXPECT_EQ(v.ownerId, fresh.ownerId);
        EXPECT_EQ(v.hostParamC, fresh.hostParamC);
        EXPECT_EQ(v.hostParamD, fresh.hostParamD);
    }

    const EXTENDVAR *Record(int station, const char *areaName, int address) {
        for (const EXTENDVAR &r : PLC_driver.extendList) {
            if (r.station == station && r.area == QLatin1String(areaName) && r.address == address) {
                return &r;
            }
        }
        return nullptr;
    }
};

// ---- Register writes ---------------------------------------------------------------------

TEST_F(HostWriteTest, RegistersAreSplitAtTheFrameLimit) {
    info.maxFrameWords = 2;
    const QByteArray value = Bytes({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_EQ(SetRegisterData("4x", 100, 1, value, 5), 3);
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(Queued(0).address, 100);
    EXPECT_EQ(Queued(0).count, 2);
    EXPECT_EQ(Queued(0).value, Bytes({0, 1, 2, 3}));
    EXPECT_EQ(Queued(1).address, 102);
    EXPECT_EQ(Queued(1).count, 2);
    EXPECT_EQ(Queued(1).value, Bytes({4, 5, 6, 7}));
    EXPECT_EQ(Queued(2).address, 104);
    EXPECT_EQ(Queued(2).count, 1);
    EXPECT_EQ(Queued(2).value, Bytes({8, 9}));
    for (const RW_VAR &v : PLC_driver.writeList) ExpectHostRequest(v, "4x", 1);
    // The link is up: the cache changes only when the frames are built.
    EXPECT_EQ(PLC_driver.holdingRegArea[100], 0);
}

TEST_F(HostWriteTest, MissingValueBytesArePaddedWithZeros) {
    info.maxFrameWords = 2;
    const QByteArray value = Bytes({0, 1, 2, 3, 4, 5});
    EXPECT_EQ(SetRegisterData("4x", 100, 1, value, 5), 3);
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(Queued(0).value, Bytes({0, 1, 2, 3}));
    EXPECT_EQ(Queued(1).value, Bytes({4, 5, 0, 0}));
    EXPECT_EQ(Queued(2).value, Bytes({0, 0}));
}

TEST_F(HostWriteTest, ExactMultipleOfTheLimitGivesFullLastRequest) {
    info.maxFrameWords = 2;
    EXPECT_EQ(SetRegisterData("4x", 0, 1, Bytes({1, 2, 3, 4, 5, 6, 7, 8}), 4), 2);
    ASSERT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(Queued(1).address, 2);
    EXPECT_EQ(Queued(1).count, 2);
    EXPECT_EQ(Queued(1).value, Bytes({5, 6, 7, 8}));
}

TEST_F(HostWriteTest, ShortWriteIsOneRequest) {
    EXPECT_EQ(SetRegisterData("4x", 7, 1, Bytes({0x34, 0x12}), 1), 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(Queued(0).address, 7);
    EXPECT_EQ(Queued(0).count, 1);
    EXPECT_EQ(Queued(0).value, Bytes({0x34, 0x12}));
}

TEST_F(HostWriteTest, ResultIsLengthOfWriteListIncludingEarlierRequests) {
    RW_VAR earlier = MakeVar("4x", 0, 1, 1, 1, Bytes({0, 0}));
    AddListWriteVar(&earlier);
    AddListWriteVar(&earlier);
    EXPECT_EQ(SetRegisterData("4x", 7, 1, Bytes({0x34, 0x12}), 1), 3);
}

TEST_F(HostWriteTest, DoubleSplitWithOddLimitCutsAValueInHalf) {
    info.maxFrameWords = 3;
    const QByteArray value = Bytes({0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55});
    EXPECT_EQ(SetRegisterData("4x_double", 10, 1, value, 4), 2);
    ASSERT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(Queued(0).address, 10);
    EXPECT_EQ(Queued(0).count, 3);
    EXPECT_EQ(Queued(0).value, Bytes({0x44, 0x33, 0x22, 0x11, 0x88, 0x77}));
    EXPECT_EQ(Queued(1).address, 13);
    EXPECT_EQ(Queued(1).count, 1);
    EXPECT_EQ(Queued(1).value, Bytes({0x66, 0x55}));
    for (const RW_VAR &v : PLC_driver.writeList) ExpectHostRequest(v, "4x_double", 1);
}

TEST_F(HostWriteTest, RegisterCountBelowOneQueuesNothing) {
    EXPECT_EQ(SetRegisterData("4x", 7, 1, Bytes({1, 2}), 0), 0);
    EXPECT_EQ(SetRegisterData("4x_double", 7, 1, Bytes({1, 2, 3, 4}), -2), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(HostWriteTest, FrameLimitZeroOrNegativeQueuesNothing) {
    for (int limit : {0, -1, -125}) {
        info.maxFrameWords = limit;
        EXPECT_EQ(SetRegisterData("4x", 7, 1, Bytes({1, 2}), 1), 0) << limit;
        EXPECT_EQ(SetRegisterData("4x_double", 7, 1, Bytes({1, 2, 3, 4}), 2), 0) << limit;
        EXPECT_TRUE(PLC_driver.writeList.isEmpty()) << limit;
    }
}

// ---- Bit writes --------------------------------------------------------------------------

TEST_F(HostWriteTest, CoilsAreOneRequestPerBit) {
    EXPECT_EQ(SetRegisterData("0x", 8, 1, Bytes({1, 0, 1}), 3), 3);
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Queued(i).address, 8 + i);
        EXPECT_EQ(Queued(i).count, 1);
        ExpectHostRequest(Queued(i), "0x", 1);
    }
    EXPECT_EQ(Queued(0).value, Bytes({1}));
    EXPECT_EQ(Queued(1).value, Bytes({0}));
    EXPECT_EQ(Queued(2).value, Bytes({1}));
    EXPECT_EQ(PLC_driver.coilArea[1], 0);
}

TEST_F(HostWriteTest, CoilsBeyondTheValueAreWrittenOff) {
    EXPECT_EQ(SetRegisterData("0x", 8, 1, Bytes({1}), 3), 3);
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(Queued(1).value, Bytes({0}));
    EXPECT_EQ(Queued(2).value, Bytes({0}));
}

TEST_F(HostWriteTest, BitInRegisterIsOneRequestPerBit) {
    EXPECT_EQ(SetRegisterData("4x_bit", 0x1005, 1, Bytes({1, 2}), 2), 2);
    ASSERT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(Queued(0).address, 0x1005);
    EXPECT_EQ(Queued(1).address, 0x1006);
    EXPECT_EQ(Queued(0).value, Bytes({1}));
    EXPECT_EQ(Queued(1).value, Bytes({2}));
    for (const RW_VAR &v : PLC_driver.writeList) ExpectHostRequest(v, "4x_bit", 1);
}

TEST_F(HostWriteTest, BitCountBelowOneQueuesNothing) {
    EXPECT_EQ(SetRegisterData("0x", 8, 1, Bytes({1}), 0), 0);
    EXPECT_EQ(SetRegisterData("4x_bit", 8, 1, Bytes({1}), -1), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

// ---- Refusals ----------------------------------------------------------------------------

TEST_F(HostWriteTest, ReadOnlyAreaWithFramesSentReturnsZeroAndChangesNothing) {
    for (const char *name : {"3x", "1x", "3x_bit", "3x_double", "5x"}) {
        EXPECT_EQ(SetRegisterData(name, 7, 1, Bytes({0x34, 0x12, 0x78, 0x56}), 2), 0) << name;
    }
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.inputRegArea[7], 0);
    EXPECT_EQ(PLC_driver.inputBitArea[0], 0);
}

TEST_F(HostWriteTest, ReadOnlyAreaWithLinkDownStillReturnsZeroAndChangesNothing) {
    PLC_driver.linkFailed = 1;
    EXPECT_EQ(SetRegisterData("3x", 7, 1, Bytes({0x34, 0x12}), 1), 0);
    EXPECT_EQ(PLC_driver.inputRegArea[7], 0);
}

TEST_F(HostWriteTest, NegativeAddressReturnsZeroInEveryMode) {
    EXPECT_EQ(SetRegisterData("4x", -1, 1, Bytes({1, 2}), 1), 0);
    EXPECT_EQ(SetRegisterData("0x", -1, 1, Bytes({1}), 1), 0);
    info.workMode = 0;
    EXPECT_EQ(SetRegisterData("4x", -1, 1, Bytes({1, 2}), 1), 0);
    info.multiStation = 1;
    EXPECT_EQ(SetRegisterData("4x", -1, 1, Bytes({1, 2}), 1), 0);
    info.workMode = 2;
    EXPECT_EQ(SetRegisterData("4x", -1, 1, Bytes({1, 2}), 1), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0);
}

// ---- Station -----------------------------------------------------------------------------

TEST_F(HostWriteTest, SingleStationModeUsesDefaultStationWhateverTheArgument) {
    info.defaultStation = 5;
    SetRegisterData("4x", 7, 9, Bytes({1, 2}), 1);
    SetRegisterData("0x", 7, 9, Bytes({1}), 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(Queued(0).station, 5);
    EXPECT_EQ(Queued(1).station, 5);
}

TEST_F(HostWriteTest, MultiStationModeUsesTheArgument) {
    info.multiStation = 1;
    info.defaultStation = 5;
    SetRegisterData("4x", 7, 9, Bytes({1, 2}), 1);
    SetRegisterData("4x_bit", 7, 12, Bytes({1}), 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(Queued(0).station, 9);
    EXPECT_EQ(Queued(1).station, 12);
}

// ---- Cache-only mode ---------------------------------------------------------------------

TEST_F(HostWriteTest, CacheOnlyModeWritesReadOnlyAreasAndQueuesNothing) {
    info.workMode = 0;
    EXPECT_EQ(SetRegisterData("3x", 7, 1, Bytes({0x34, 0x12, 0x78, 0x56}), 2), 1);
    EXPECT_EQ(PLC_driver.inputRegArea[7], 0x1234);
    EXPECT_EQ(PLC_driver.inputRegArea[8], 0x5678);
    EXPECT_EQ(SetRegisterData("1x", 9, 1, Bytes({1, 2, 1}), 3), 1);
    EXPECT_EQ(PLC_driver.inputBitArea[1], 0x0A);  // inputs 9 and 11; 2 is not on
    EXPECT_EQ(SetRegisterData("3x_bit", 0x1005, 1, Bytes({1}), 1), 1);
    EXPECT_EQ(PLC_driver.inputRegArea[0x100], 0x0020);
    EXPECT_EQ(SetRegisterData("3x_double", 20, 1, Bytes({0xA0, 0x86, 0x01, 0x00}), 2), 1);
    EXPECT_EQ(PLC_driver.inputRegArea[20], 0x0001);
    EXPECT_EQ(PLC_driver.inputRegArea[21], 0x86A0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(HostWriteTest, CacheOnlyModeWritesWritableAreas) {
    info.workMode = 1;
    EXPECT_EQ(SetRegisterData("0x", 13, 1, Bytes({1}), 1), 1);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x20);
    EXPECT_EQ(SetRegisterData("4x", 10, 1, Bytes({0x34, 0x12}), 1), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0x1234);
    EXPECT_EQ(SetRegisterData("4x_bit", 0x100F, 1, Bytes({1}), 1), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x8000);
    EXPECT_EQ(SetRegisterData("4x_double", 20, 1, Bytes({0x78, 0x56, 0x34, 0x12}), 2), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[20], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[21], 0x5678);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(HostWriteTest, CacheOnlyModeUnknownAreaReturnsOneAndWritesNothing) {
    info.workMode = 0;
    EXPECT_EQ(SetRegisterData("5x", 7, 1, Bytes({0x34, 0x12}), 1), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[7], 0);
    EXPECT_EQ(PLC_driver.inputRegArea[7], 0);
}

TEST_F(HostWriteTest, CacheOnlyModeIgnoresFrameLimit) {
    info.workMode = 0;
    info.maxFrameWords = 0;
    EXPECT_EQ(SetRegisterData("4x", 10, 1, Bytes({1, 0, 2, 0, 3, 0}), 3), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[11], 2);
    EXPECT_EQ(PLC_driver.holdingRegArea[12], 3);
}

TEST_F(HostWriteTest, CacheOnlyShortValueIsCutShort) {
    info.workMode = 0;
    PLC_driver.holdingRegArea[11] = 0x7777;
    EXPECT_EQ(SetRegisterData("4x", 10, 1, Bytes({0x34, 0x12, 0x99}), 2), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[11], 0x7777);
}

// ---- Link down ---------------------------------------------------------------------------

TEST_F(HostWriteTest, WithLinkDownEveryQueuedRequestIsAlsoCachedAtOnce) {
    PLC_driver.linkFailed = 1;
    info.maxFrameWords = 2;
    EXPECT_EQ(SetRegisterData("4x", 100, 1, Bytes({1, 0, 2, 0, 3, 0}), 3), 2);
    EXPECT_EQ(PLC_driver.holdingRegArea[100], 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[101], 2);
    EXPECT_EQ(PLC_driver.holdingRegArea[102], 3);
    EXPECT_EQ(SetRegisterData("0x", 8, 1, Bytes({1, 0, 1}), 3), 5);
    EXPECT_EQ(PLC_driver.coilArea[1], 0x05);
    EXPECT_EQ(SetRegisterData("4x_bit", 0x2003, 1, Bytes({1}), 1), 6);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x200], 0x0008);
    EXPECT_EQ(SetRegisterData("4x_double", 30, 1, Bytes({0x78, 0x56, 0x34, 0x12}), 2), 7);
    EXPECT_EQ(PLC_driver.holdingRegArea[30], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[31], 0x5678);
}

TEST_F(HostWriteTest, WithLinkUpNothingIsCachedUntilFramesAreBuilt) {
    SetRegisterData("4x", 100, 1, Bytes({1, 0}), 1);
    SetRegisterData("0x", 8, 1, Bytes({1}), 1);
    SetRegisterData("4x_bit", 0x2003, 1, Bytes({1}), 1);
    EXPECT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(PLC_driver.holdingRegArea[100], 0);
    EXPECT_EQ(PLC_driver.coilArea[1], 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x200], 0);
}

TEST_F(HostWriteTest, FullWriteListDropsRequestButLinkDownCacheIsStillWritten) {
    RW_VAR filler = MakeVar("4x", 0, 1, 1, 1, Bytes({0, 0}));
    for (int i = 0; i < 1024; ++i) AddListWriteVar(&filler);
    ASSERT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(SetRegisterData("4x", 50, 1, Bytes({0x34, 0x12}), 1), 1024);
    EXPECT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.writeList.last().address, 0);
    EXPECT_EQ(PLC_driver.holdingRegArea[50], 0);

    PLC_driver.linkFailed = 1;
    EXPECT_EQ(SetRegisterData("4x", 50, 1, Bytes({0x34, 0x12}), 1), 1024);
    EXPECT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.holdingRegArea[50], 0x1234);
}

TEST_F(HostWriteTest, WriteListLimitIs1024) {
    RW_VAR v = MakeVar("4x", 0, 1, 1, 1, Bytes({0, 0}));
    for (int i = 1; i <= 1024; ++i) ASSERT_EQ(AddListWriteVar(&v), i);
    v.address = 99;
    EXPECT_EQ(AddListWriteVar(&v), 1024);
    EXPECT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.writeList.last().address, 0);
}

// ---- The cache in multi-station mode -----------------------------------------------------

TEST_F(HostWriteTest, MultiStationDoubleIsKeptByPlainRegisterWordSwapped) {
    info.multiStation = 1;
    info.workMode = 0;
    EXPECT_EQ(SetRegisterData("4x_double", 10, 3, Bytes({0x78, 0x56, 0x34, 0x12}), 2), 1);
    ASSERT_NE(Record(3, "4x", 10), nullptr);
    ASSERT_NE(Record(3, "4x", 11), nullptr);
    EXPECT_EQ(Record(3, "4x", 10)->data, Bytes({0x34, 0x12}));
    EXPECT_EQ(Record(3, "4x", 11)->data, Bytes({0x78, 0x56}));
    EXPECT_EQ(Record(3, "4x_double", 10), nullptr);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0);
}

TEST_F(HostWriteTest, MultiStationDoubleWithLinkDown) {
    info.multiStation = 1;
    PLC_driver.linkFailed = 1;
    EXPECT_EQ(SetRegisterData("4x_double", 10, 3, Bytes({0x78, 0x56, 0x34, 0x12}), 2), 1);
    ASSERT_NE(Record(3, "4x", 10), nullptr);
    EXPECT_EQ(Record(3, "4x", 10)->data, Bytes({0x34, 0x12}));
    EXPECT_EQ(Record(3, "4x", 11)->data, Bytes({0x78, 0x56}));
    EXPECT_EQ(PLC_driver.writeList.first().station, 3);
}

TEST_F(HostWriteTest, MultiStationRegistersReplaceRecordData) {
    info.multiStation = 1;
    RW_VAR v = MakeVar("3x", 5, 2, 3, 1, Bytes({0x34, 0x12, 0x78, 0x56, 0x99}));
    WriteDataToLocal(&v);
    ASSERT_NE(Record(2, "3x", 5), nullptr);
    ASSERT_NE(Record(2, "3x", 6), nullptr);
    EXPECT_EQ(Record(2, "3x", 5)->data, Bytes({0x34, 0x12}));
    EXPECT_EQ(Record(2, "3x", 6)->data, Bytes({0x78, 0x56}));
    EXPECT_EQ(Record(2, "3x", 7), nullptr);  // its value bytes lie beyond the end
}

TEST_F(HostWriteTest, MultiStationCoilsShareOneByteRecordPerEightBits) {
    info.multiStation = 1;
    RW_VAR v = MakeVar("0x", 10, 2, 3, 1, Bytes({1, 0, 1}));
    WriteDataToLocal(&v);
    ASSERT_EQ(PLC_driver.extendList.size(), 1);
    ASSERT_NE(Record(2, "0x", 8), nullptr);
    EXPECT_EQ(Record(2, "0x", 8)->data, Bytes({0x14}));

    RW_VAR next = MakeVar("0x", 15, 2, 2, 1, Bytes({1, 1}));
    WriteDataToLocal(&next);
    EXPECT_EQ(Record(2, "0x", 8)->data, Bytes({0x94}));
    ASSERT_NE(Record(2, "0x", 16), nullptr);
    EXPECT_EQ(Record(2, "0x", 16)->data, Bytes({0x01}));
}

TEST_F(HostWriteTest, MultiStationBitOtherThanOneClears) {
    info.multiStation = 1;
    RW_VAR on = MakeVar("1x", 3, 2, 1, 1, Bytes({1}));
    WriteDataToLocal(&on);
    EXPECT_EQ(Record(2, "1x", 0)->data, Bytes({0x08}));
    RW_VAR other = MakeVar("1x", 3, 2, 1, 1, Bytes({2}));
    WriteDataToLocal(&other);
    EXPECT_EQ(Record(2, "1x", 0)->data, Bytes({0x00}));
}

TEST_F(HostWriteTest, MultiStationBitInRegisterSetsBitOfRegisterRecord) {
    info.multiStation = 1;
    RW_VAR v = MakeVar("4x_bit", 0x1009, 2, 1, 1, Bytes({1}));
    WriteDataToLocal(&v);
    ASSERT_NE(Record(2, "4x", 0x100), nullptr);
    // A new record holds four zero bytes; bit 9 is bit 1 of its high byte.
    EXPECT_EQ(Record(2, "4x", 0x100)->data, Bytes({0x00, 0x02, 0x00, 0x00}));

    RW_VAR keep = MakeVar("4x_bit", 0x1009, 2, 1, 1, Bytes({2}));
    WriteDataToLocal(&keep);
    EXPECT_EQ(Record(2, "4x", 0x100)->data, Bytes({0x00, 0x02, 0x00, 0x00}));

    RW_VAR off = MakeVar("4x_bit", 0x1009, 2, 1, 1, Bytes({0}));
    WriteDataToLocal(&off);
    EXPECT_EQ(Record(2, "4x", 0x100)->data, Bytes({0x00, 0x00, 0x00, 0x00}));
}

TEST_F(HostWriteTest, MultiStationBitInRegisterUsesFirstAddressForEveryElement) {
    info.multiStation = 1;
    // Elements 0x1009 and 0x100A both land in register 0x100, and both act on bit 9.
    RW_VAR v = MakeVar("3x_bit", 0x1009, 2, 2, 1, Bytes({1, 0}));
    WriteDataToLocal(&v);
    ASSERT_NE(Record(2, "3x", 0x100), nullptr);
    EXPECT_EQ(Record(2, "3x", 0x100)->data, Bytes({0x00, 0x00, 0x00, 0x00}));
}

TEST_F(HostWriteTest, MultiStationBitInRegisterLeavesShortRecordAlone) {
    info.multiStation = 1;
    FindOrCreateExtendVar(2, QStringLiteral("4x"), 0x100).data = Bytes({0x11});
    RW_VAR v = MakeVar("4x_bit", 0x1000, 2, 1, 1, Bytes({1}));
    WriteDataToLocal(&v);
    EXPECT_EQ(Record(2, "4x", 0x100)->data, Bytes({0x11}));
}

TEST_F(HostWriteTest, MultiStationInputDoubleUsesInputRegisterRecords) {
    info.multiStation = 1;
    RW_VAR v = MakeVar("3x_double", 0, 4, 2, 1, Bytes({0xA0, 0x86, 0x01, 0x00}));
    WriteDataToLocal(&v);
    EXPECT_EQ(Record(4, "3x", 0)->data, Bytes({0x01, 0x00}));
    EXPECT_EQ(Record(4, "3x", 1)->data, Bytes({0xA0, 0x86}));
}

// ---- The cache in single-station mode ----------------------------------------------------

TEST_F(HostWriteTest, SingleStationCacheByArea) {
    RW_VAR coil = MakeVar("0x", 0, 1, 2, 1, Bytes({1, 2}));
    WriteDataToLocal(&coil);
    EXPECT_EQ(PLC_driver.coilArea[0], 0x01);
    RW_VAR input = MakeVar("1x", 13, 1, 1, 1, Bytes({1}));
    WriteDataToLocal(&input);
    EXPECT_EQ(PLC_driver.inputBitArea[1], 0x20);
    RW_VAR inBit = MakeVar("3x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    WriteDataToLocal(&inBit);
    EXPECT_EQ(PLC_driver.inputRegArea[0x100], 0x0020);
    RW_VAR holdBit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    WriteDataToLocal(&holdBit);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0020);
    RW_VAR inReg = MakeVar("3x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    WriteDataToLocal(&inReg);
    EXPECT_EQ(PLC_driver.inputRegArea[10], 0x1234);
    RW_VAR holdReg = MakeVar("4x", 10, 1, 1, 1, Bytes({0x78, 0x56}));
    WriteDataToLocal(&holdReg);
    EXPECT_EQ(PLC_driver.holdingRegArea[10], 0x5678);
    RW_VAR inDouble = MakeVar("3x_double", 20, 1, 2, 1, Bytes({0xA0, 0x86, 0x01, 0x00}));
    WriteDataToLocal(&inDouble);
    EXPECT_EQ(PLC_driver.inputRegArea[20], 0x0001);
    EXPECT_EQ(PLC_driver.inputRegArea[21], 0x86A0);
    RW_VAR holdDouble = MakeVar("4x_double", 20, 1, 2, 1, Bytes({0x78, 0x56, 0x34, 0x12}));
    WriteDataToLocal(&holdDouble);
    EXPECT_EQ(PLC_driver.holdingRegArea[20], 0x1234);
    EXPECT_EQ(PLC_driver.holdingRegArea[21], 0x5678);
    RW_VAR unknown = MakeVar("4X", 30, 1, 1, 1, Bytes({0x78, 0x56}));
    WriteDataToLocal(&unknown);
    EXPECT_EQ(PLC_driver.holdingRegArea[30], 0);
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
}

TEST_F(HostWriteTest, CachedWritesOutsideTheImageAreDropped) {
    info.workMode = 0;
    PLC_driver.inputBitArea[0] = 0x42;
    PLC_driver.inputRegArea[0] = 0x4242;
    EXPECT_EQ(SetRegisterData("0x", 65535, 1, Bytes({1, 1, 1, 1, 1, 1, 1, 1, 1, 1}), 10), 1);
    EXPECT_EQ(PLC_driver.coilArea[8191], 0x80);
    EXPECT_EQ(PLC_driver.inputBitArea[0], 0x42);
    EXPECT_EQ(SetRegisterData("4x_double", 65535, 1, Bytes({0x78, 0x56, 0x34, 0x12}), 2), 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[65535], 0x1234);
    EXPECT_EQ(SetRegisterData("1x", 65535, 1, Bytes({1, 1, 1, 1, 1, 1, 1, 1, 1, 1}), 10), 1);
    EXPECT_EQ(PLC_driver.inputRegArea[0], 0x4242);
}

}  // namespace
