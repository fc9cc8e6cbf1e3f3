// SPDX-License-Identifier: MIT
// Per-station records: every lookup agrees with a scan of extendList from the front, also
// after a host changed the public list behind the driver's back.
#include "station_records.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <algorithm>
#include <random>
#include <unordered_map>
#include <vector>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

QString Name(const char *areaName) {
    return QString::fromLatin1(areaName);
}

EXTENDVAR Record(int station, const char *areaName, int address, const QByteArray &data) {
    EXTENDVAR record;
    record.station = station;
    record.area = Name(areaName);
    record.address = address;
    record.data = data;
    return record;
}

// The register a host reads for (station, address) of "4x".
QByteArray ReadHolding(int station, int address) {
    QByteArray out;
    GetRegisterData(Name("4x"), address, station, out, 1);
    return out;
}

class StationRecords : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        info.multiStation = 1;
    }
};

TEST_F(StationRecords, HostListOfTheSameLengthIsFound) {
    ReadHolding(1, 0);
    ReadHolding(1, 1);
    ASSERT_EQ(PLC_driver.extendList.size(), 2);

    PLC_driver.extendList.clear();
    PLC_driver.extendList.append(Record(1, "4x", 5, Bytes({0x34, 0x12})));
    PLC_driver.extendList.append(Record(1, "4x", 6, Bytes({0x78, 0x56})));

    EXPECT_EQ(ReadHolding(1, 5), Bytes({0x34, 0x12}));
    EXPECT_EQ(ReadHolding(1, 6), Bytes({0x78, 0x56}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
}

TEST_F(StationRecords, KeyChangedInPlaceIsFoundUnderItsNewKeyOnly) {
    ReadHolding(1, 0);
    ReadHolding(1, 1);
    PLC_driver.extendList[1].address = 9;
    PLC_driver.extendList[1].data = Bytes({0x01, 0x02});

    EXPECT_EQ(ReadHolding(1, 9), Bytes({0x01, 0x02}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
    EXPECT_EQ(ReadHolding(1, 1), Bytes({0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 3);
    EXPECT_EQ(PLC_driver.extendList.at(2).address, 1);
}

TEST_F(StationRecords, RecordPrependedByTheHostWinsOverALaterOne) {
    FindOrCreateExtendVar(2, Name("4x"), 7).data = Bytes({0x11, 0x11});
    PLC_driver.extendList.prepend(Record(2, "4x", 7, Bytes({0x22, 0x22})));

    EXPECT_EQ(ReadHolding(2, 7), Bytes({0x22, 0x22}));
    EXPECT_EQ(&FindOrCreateExtendVar(2, Name("4x"), 7), &PLC_driver.extendList.first());
}

TEST_F(StationRecords, OtherAreaNamesGetRecordsOfTheirOwn) {
    FindOrCreateExtendVar(5, Name("4x"), 3).data = Bytes({0x11, 0x22});
    EXTENDVAR &created = FindOrCreateExtendVar(5, Name("4x_bit"), 3);

    EXPECT_EQ(created.station, 5);
    EXPECT_EQ(created.area, Name("4x_bit"));
    EXPECT_EQ(created.address, 3);
    EXPECT_EQ(created.data, Bytes({0, 0, 0, 0}));
    created.data = Bytes({0x7F});
    EXPECT_EQ(FindOrCreateExtendVar(5, Name("4x_bit"), 3).data, Bytes({0x7F}));
    ASSERT_EQ(PLC_driver.extendList.size(), 2);
    EXPECT_EQ(ReadHolding(5, 3), Bytes({0x11, 0x22}));
}

TEST_F(StationRecords, RecordsBehindARemovedOneAreStillFound) {
    for (int address = 0; address < 4; ++address) {
        FindOrCreateExtendVar(3, Name("3x"), address).data = Bytes({address, 0x40});
    }
    PLC_driver.extendList.removeFirst();

    QByteArray out;
    GetRegisterData(Name("3x"), 1, 3, out, 3);
    EXPECT_EQ(out, Bytes({1, 0x40, 2, 0x40, 3, 0x40}));
    EXPECT_EQ(PLC_driver.extendList.size(), 3);
}

TEST_F(StationRecords, ListAssignedFromAHostCopyIsFound) {
    ReadHolding(4, 100);
    QList<EXTENDVAR> hostList;
    hostList.append(Record(4, "4x", 200, Bytes({0xCD, 0xAB})));
    PLC_driver.extendList = hostList;

    EXPECT_EQ(ReadHolding(4, 200), Bytes({0xCD, 0xAB}));
    EXPECT_EQ(PLC_driver.extendList.size(), 1);
}

TEST_F(StationRecords, RecordsUnderOtherAreaNamesAreNeverMatched) {
    PLC_driver.extendList.append(Record(1, "4x_bit", 3, Bytes({0x55, 0x55})));
    PLC_driver.extendList.append(Record(1, "4X", 3, Bytes({0x66, 0x66})));

    EXPECT_EQ(ReadHolding(1, 3), Bytes({0, 0}));
    ASSERT_EQ(PLC_driver.extendList.size(), 3);
    EXPECT_EQ(PLC_driver.extendList.at(2).area, Name("4x"));
}

TEST_F(StationRecords, StationAndAddressSwappedAreDifferentRecords) {
    FindOrCreateExtendVar(2, Name("4x"), 3).data = Bytes({0x23, 0});
    FindOrCreateExtendVar(3, Name("4x"), 2).data = Bytes({0x32, 0});
    EXPECT_EQ(ReadHolding(2, 3), Bytes({0x23, 0}));
    EXPECT_EQ(ReadHolding(3, 2), Bytes({0x32, 0}));
    EXPECT_EQ(PLC_driver.extendList.size(), 2);
}

// The position a scan from the front finds for a key, -1 when none matches.
int ScanPosition(int station, const QString &areaName, int address) {
    const QList<EXTENDVAR> &list = PLC_driver.extendList;
    for (int i = 0; i < list.size(); ++i) {
        const EXTENDVAR &r = list.at(i);
        if (r.station == station && r.area == areaName && r.address == address) return i;
    }
    return -1;
}

// Random host edits interleaved with driver lookups; every lookup must return the record a
// scan from the front finds, or append one when the scan finds none.
TEST_F(StationRecords, LookupsAgreeWithAScanAfterRandomHostEdits) {
    std::mt19937 random(20261123);
    auto pick = [&random](int below) {
        return std::uniform_int_distribution<int>(0, below - 1)(random);
    };
    const char *const areas[] = {"0x", "1x", "3x", "4x"};
    for (int step = 0; step < 3000; ++step) {
        QList<EXTENDVAR> &list = PLC_driver.extendList;
        const int station = 1 + pick(3);
        const char *areaName = areas[pick(4)];
        const int address = pick(8);
        switch (pick(9)) {
            case 0:
                if (pick(4) == 0) list.clear();
                break;
            case 1:
                list.append(Record(station, areaName, address, Bytes({step & 0xFF, 0x5A})));
                break;
            case 2:
                list.prepend(Record(station, areaName, address, Bytes({step & 0xFF, 0x5A})));
                break;
            case 3:
                if (!list.isEmpty()) list.removeAt(pick(list.size()));
                break;
            case 4:
                if (!list.isEmpty()) list[pick(list.size())].address = address;
                break;
            case 5:
                if (list.size() > 1) list.swapItemsAt(0, list.size() - 1);
                break;
            case 6: {
                const int expected = ScanPosition(station, Name(areaName), address);
                const int sizeBefore = list.size();
                const EXTENDVAR *found = &FindOrCreateExtendVar(station, Name(areaName), address);
                const int position = expected >= 0 ? expected : sizeBefore;
                ASSERT_EQ(PLC_driver.extendList.size(), expected >= 0 ? sizeBefore : sizeBefore + 1)
                    << "step " << step;
                ASSERT_EQ(found, &PLC_driver.extendList.at(position)) << "step " << step;
                break;
            }
            default: {
                // A host read keeps the index shared with the list between lookups.
                const char *registerArea = areas[2 + pick(2)];
                const int expected = ScanPosition(station, Name(registerArea), address);
                const int sizeBefore = list.size();
                QByteArray wanted = Bytes({0, 0});
                if (expected >= 0 && list.at(expected).data.size() >= 2) {
                    wanted = list.at(expected).data.left(2);
                }
                QByteArray out;
                GetRegisterData(Name(registerArea), address, station, out, 1);
                ASSERT_EQ(out, wanted) << "step " << step;
                ASSERT_EQ(PLC_driver.extendList.size(), expected >= 0 ? sizeBefore : sizeBefore + 1)
                    << "step " << step;
                break;
            }
        }
    }
}

// Keys whose station and block agree under XOR (or any other simple mix) still spread.
TEST(StationBlockKeyHashTest, StationsAndBlocksSpreadOverTheBuckets) {
    std::unordered_map<StationBlockKey, int, StationBlockKeyHash> buckets;
    std::vector<std::size_t> hashes;
    for (int station = 0; station < 256; ++station) {
        for (unsigned int block = 0; block < 512; ++block) {
            for (AreaTable table : {AreaTable::InputRegisters, AreaTable::HoldingRegisters}) {
                const StationBlockKey key{station, table, block};
                buckets.emplace(key, 0);
                hashes.push_back(StationBlockKeyHash()(key));
            }
        }
    }
    std::sort(hashes.begin(), hashes.end());
    const auto distinct =
        static_cast<std::size_t>(std::unique(hashes.begin(), hashes.end()) - hashes.begin());
    // 64 bits of hash tell every key apart; cut to a 32-bit size_t (armhf), a few of these
    // 262,144 keys may share a value.
    EXPECT_GE(distinct, sizeof(std::size_t) >= 8 ? hashes.size() : hashes.size() - 64);
    std::size_t longest = 0;
    for (std::size_t b = 0; b < buckets.bucket_count(); ++b) {
        longest = std::max(longest, buckets.bucket_size(b));
    }
    EXPECT_LE(longest, 10u);
}

}  // namespace
