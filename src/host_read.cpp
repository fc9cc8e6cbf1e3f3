// SPDX-License-Identifier: MIT
// The host's reads of current values: from the image with one station, from the
// per-station records with several.
#include <QByteArray>
#include <QString>
#include <climits>

#include "driver_internal.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"
#include "station_records.h"

namespace {

void readImage(const QString &name, int address, QByteArray &out, int count) {
    const AreaKind kind = KindOfArea(name);
    switch (kind.shape) {
        case AreaShape::Bits:
            GetBitFromUC(out, ImageBitTable(kind.table), address, count);
            break;
        case AreaShape::RegisterBits:
            GetBitFromUS(out, ImageRegisterTable(kind.table), address, count);
            break;
        case AreaShape::Registers:
            GetWordFromUS(out, ImageRegisterTable(kind.table), address, count);
            break;
        case AreaShape::Doubles:
            GetWordFromUI(out, ImageRegisterTable(kind.table), address, count);
            break;
        case AreaShape::None:
            break;
    }
}

// Low and high byte of a per-station register record, 0 when it holds fewer than two.
void copyRegisterRecord(char *dest, const EXTENDVAR &record) {
    const bool present = record.data.size() >= 2;
    dest[0] = present ? record.data.at(0) : '\0';
    dest[1] = present ? record.data.at(1) : '\0';
}

void readStationBits(StationRecords &records, int station, AreaTable table, int address, char *out,
                     int count) {
    for (int i = 0; i < count; ++i) {
        const int bit = address + i;
        const EXTENDVAR &record = records.findOrCreate(station, table, (bit / 8) * 8);
        out[i] =
            static_cast<char>(record.data.isEmpty() ? 0 : (record.data.at(0) >> (bit % 8)) & 1);
    }
}

void readStationRegisterBits(StationRecords &records, int station, AreaTable table, int address,
                             char *out, int count) {
    for (int i = 0; i < count; ++i) {
        const int bit = address + i;
        const EXTENDVAR &record = records.findOrCreate(station, table, bit / 16);
        const int byteIndex = (bit % 16) / 8;
        out[i] = static_cast<char>(
            record.data.size() > byteIndex ? (record.data.at(byteIndex) >> (bit % 8)) & 1 : 0);
    }
}

void readStationRegisters(StationRecords &records, int station, AreaTable table, int address,
                          char *out, int count) {
    for (int i = 0; i < count; ++i) {
        copyRegisterRecord(out + 2 * i, records.findOrCreate(station, table, address + i));
    }
}

void readStationDoubles(StationRecords &records, int station, AreaTable table, int address,
                        char *out, int pairs) {
    for (int p = 0; p < pairs; ++p) {
        copyRegisterRecord(out + 4 * p, records.findOrCreate(station, table, address + 2 * p + 1));
        copyRegisterRecord(out + 4 * p + 2, records.findOrCreate(station, table, address + 2 * p));
    }
}

// Per-station records are kept under the plain table name ("0x", "1x", "3x", "4x").
void readStation(const QString &name, int address, int station, QByteArray &out, int count) {
    // Addresses of the records must stay within int.
    count = qMin(count, INT_MAX - address);
    const AreaKind kind = KindOfArea(name);
    StationRecords records(PLC_driver);
    switch (kind.shape) {
        case AreaShape::Bits:
            count = ClampedHostCount(count, 1);
            if (count >= 1)
                readStationBits(records, station, kind.table, address, GrowHostArray(out, count),
                                count);
            break;
        case AreaShape::RegisterBits:
            count = ClampedHostCount(count, 1);
            if (count >= 1) {
                readStationRegisterBits(records, station, kind.table, address,
                                        GrowHostArray(out, count), count);
            }
            break;
        case AreaShape::Registers:
            count = ClampedHostCount(count, 2);
            if (count >= 1) {
                readStationRegisters(records, station, kind.table, address,
                                     GrowHostArray(out, 2 * count), count);
            }
            break;
        case AreaShape::Doubles: {
            // Here a count of 1 yields nothing, unlike the single-station image.
            const int pairs = ClampedHostCount(count, 2) / 2;
            if (pairs >= 1) {
                readStationDoubles(records, station, kind.table, address,
                                   GrowHostArray(out, 4 * pairs), pairs);
            }
            break;
        }
        case AreaShape::None:
            break;
    }
}

}  // namespace

int GetRegisterData(const QString &area, int address, int station, QByteArray &out, int count) {
    if (address < 0) return 0;
    Modbus_ASCII_Master &d = PLC_driver;
    DriverLock lock(d.imageMutex);
    QByteArray values = out;
    if (d.comInfo != nullptr && d.comInfo->multiStation != 0) {
        readStation(area, address, station, values, count);
    } else {
        readImage(area, address, values, count);
    }
    out = values;
    return 1;
}
