// SPDX-License-Identifier: MIT
// The per-station records of extendList and their index.
//
// Invariant (see station_records.h): while the index's shared copy of extendList shares its
// data with the list, every lookup through the index finds exactly the record that a scan of
// the list from the front finds. A host that changes the public list through its handle
// detaches it from the copy, which forces a rebuild; the driver itself changes the list only
// inside a batch, which gives the copy up while it writes and takes it again at the end.
#include "station_records.h"

#include <cstdint>

namespace {

constexpr unsigned int kBlockShift = 4;
constexpr unsigned int kSlotMask = 15;
constexpr int kNoRecord = -1;

// The table of a plain area name ("0x", "1x", "3x", "4x"); None for every other name.
AreaTable plainTableOf(const QString &name) {
    const AreaKind kind = KindOfArea(name);
    const bool plain = kind.shape == AreaShape::Bits || kind.shape == AreaShape::Registers;
    return plain ? kind.table : AreaTable::None;
}

StationIndex &indexOf(Modbus_ASCII_Master &driver) {
    if (!driver.extendIndex) {
        driver.extendIndex = std::make_unique<StationIndex>();
        for (int t = 0; t < 4; ++t) {
            driver.extendIndex->tableNames[t] = TableName(static_cast<AreaTable>(t));
        }
    }
    return *driver.extendIndex;
}

EXTENDVAR zeroRecord(int station, const QString &areaName, int address) {
    EXTENDVAR record;
    record.station = station;
    record.area = areaName;
    record.address = address;
    record.data = QByteArray(4, '\0');
    return record;
}

bool recordMatches(const EXTENDVAR &record, int station, const QString &areaName, int address) {
    return record.station == station && record.address == address && record.area == areaName;
}

}  // namespace

std::size_t StationBlockKeyHash::operator()(const StationBlockKey &key) const noexcept {
    std::uint64_t x = (std::uint64_t(static_cast<std::uint32_t>(key.station)) << 32) | key.block;
    x ^= std::uint64_t(static_cast<int>(key.table) + 1) * 0x9E3779B97F4A7C15ull;
    // MurmurHash3's 64-bit finaliser: every input bit reaches every output bit.
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDull;
    x ^= x >> 33;
    x *= 0xC4CEB9FE1A85EC53ull;
    x ^= x >> 33;
    return static_cast<std::size_t>(x);
}

StationRecords::StationRecords(Modbus_ASCII_Master &driver, AtEnd atEnd)
    : driver_(driver), index_(indexOf(driver)), atEnd_(atEnd) {
    if (!index_.indexed.isSharedWith(driver_.extendList)) rebuild();
    // Without the copy the list is not shared, so records are written in place.
    index_.indexed = QList<EXTENDVAR>();
}

StationRecords::~StationRecords() {
    if (atEnd_ == AtEnd::KeepIndex) {
        index_.indexed = driver_.extendList;
    } else {
        // Two empty lists may share the static empty data: no blocks may outlive the batch.
        index_.blocks.clear();
    }
}

void StationRecords::rebuild() {
    index_.blocks.clear();
    lastBlock_ = nullptr;
    const QList<EXTENDVAR> &list = driver_.extendList;
    for (int i = 0; i < list.size(); ++i) {
        const EXTENDVAR &record = list.at(i);
        const AreaTable table = plainTableOf(record.area);
        if (table == AreaTable::None) continue;
        const auto address = static_cast<unsigned int>(record.address);
        int &slot = blockOf(record.station, table, address >> kBlockShift)[address & kSlotMask];
        if (slot == kNoRecord) slot = i;  // the first record of a key wins, as in a scan
    }
}

StationBlock &StationRecords::blockOf(int station, AreaTable table, unsigned int block) {
    const StationBlockKey key{station, table, block};
    if (lastBlock_ != nullptr && lastKey_ == key) return *lastBlock_;
    auto found = index_.blocks.find(key);
    if (found == index_.blocks.end()) {
        StationBlock empty;
        empty.fill(kNoRecord);
        found = index_.blocks.emplace(key, empty).first;
    }
    // Nodes of the map keep their address when it grows, so the pointer stays good.
    lastKey_ = key;
    lastBlock_ = &found->second;
    return *lastBlock_;
}

EXTENDVAR &StationRecords::findOrCreate(int station, AreaTable table, int address) {
    const auto unsignedAddress = static_cast<unsigned int>(address);
    int &slot =
        blockOf(station, table, unsignedAddress >> kBlockShift)[unsignedAddress & kSlotMask];
    if (slot != kNoRecord) return driver_.extendList[slot];
    driver_.extendList.append(
        zeroRecord(station, index_.tableNames[static_cast<int>(table)], address));
    slot = driver_.extendList.size() - 1;
    return driver_.extendList.last();
}

EXTENDVAR &FindOrCreateExtendVar(int station, const QString &areaName, int address) {
    const AreaTable table = plainTableOf(areaName);
    if (table != AreaTable::None) {
        // The caller writes through the reference, possibly after editing the list itself.
        StationRecords records(PLC_driver, StationRecords::AtEnd::DropIndex);
        return records.findOrCreate(station, table, address);
    }
    // The driver keeps records only under plain names; any other name is found by a scan.
    QList<EXTENDVAR> &list = PLC_driver.extendList;
    for (int i = 0; i < list.size(); ++i) {
        if (recordMatches(list.at(i), station, areaName, address)) return list[i];
    }
    list.append(zeroRecord(station, areaName, address));
    return list.last();
}
