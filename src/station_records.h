// SPDX-License-Identifier: MIT
// The per-station records of extendList and the index that finds them.
//
// Invariant: while StationIndex::indexed shares its data with PLC_driver.extendList, slot
// (address & 15) of the block for (station, table, address >> 4) holds the position of the
// first record in extendList with that station, address and plain area name of that table,
// or -1 when the list has none; records under any other area name are in no block. Every
// change a host makes to the public list through its own QList handle detaches it from the
// shared copy, so the index is rebuilt before it is trusted again. The driver changes the
// list only inside a StationRecords batch, which gives up the shared copy first (so that
// records are written in place) and keeps the blocks in step with its appends.
#ifndef MODBUS_ASCII_STATION_RECORDS_H
#define MODBUS_ASCII_STATION_RECORDS_H

#include <QList>
#include <QString>
#include <array>
#include <cstddef>
#include <unordered_map>

#include "driver_internal.h"
#include "modbus_ascii_master.h"

// Sixteen consecutive addresses of one station and table.
struct StationBlockKey {
    int station;
    AreaTable table;
    unsigned int block;
    bool operator==(const StationBlockKey &other) const {
        return station == other.station && table == other.table && block == other.block;
    }
};

// All three fields go through a 64-bit finaliser, so that keys whose station and address
// agree in any simple combination still spread over the buckets.
struct StationBlockKeyHash {
    std::size_t operator()(const StationBlockKey &key) const noexcept;
};

using StationBlock = std::array<int, 16>;

struct StationIndex {
    QList<EXTENDVAR> indexed;  // a shared copy: which list the blocks describe
    std::unordered_map<StationBlockKey, StationBlock, StationBlockKeyHash> blocks;
    QString tableNames[4];  // shared by every record the driver creates
};

// One batch of lookups and writes of per-station records; the caller holds imageMutex.
class StationRecords {
public:
    // KeepIndex shares the list again at the end of the batch. DropIndex leaves it unshared,
    // so that a caller may go on using a record's address while it edits the list through
    // its own handle; the next batch then rebuilds the index.
    enum class AtEnd { KeepIndex, DropIndex };

    explicit StationRecords(Modbus_ASCII_Master &driver, AtEnd atEnd = AtEnd::KeepIndex);
    ~StationRecords();
    StationRecords(const StationRecords &) = delete;
    StationRecords &operator=(const StationRecords &) = delete;

    // The first record of (station, plain name of table, address), appended with four zero
    // bytes when the list has none.
    EXTENDVAR &findOrCreate(int station, AreaTable table, int address);

private:
    StationBlock &blockOf(int station, AreaTable table, unsigned int block);
    void rebuild();

    Modbus_ASCII_Master &driver_;
    StationIndex &index_;
    AtEnd atEnd_;
    StationBlock *lastBlock_ = nullptr;
    StationBlockKey lastKey_{};
};

#endif  // MODBUS_ASCII_STATION_RECORDS_H
