// SPDX-License-Identifier: MIT
// The host's writes of values: queued as write requests while frames are sent, and the
// cache (image or per-station records) written directly.
#include <QByteArray>
#include <QString>
#include <cstring>

#include "driver_internal.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"
#include "station_records.h"

namespace {

constexpr int kFramesAreSent = 2;  // workMode

RW_VAR hostWriteRequest(const QString &name, int station) {
    const ComInfo &info = *PLC_driver.comInfo;
    RW_VAR request;
    request.direction = 1;
    request.area = name;
    request.station = info.multiStation ? station : info.defaultStation;
    request.hostParamA = info.requestParamA;
    request.hostParamB = info.requestParamB;
    return request;
}

// Offers the request to writeList; while the link is down the cache is written at once,
// since no frame will confirm it.
int offerWrite(RW_VAR &request) {
    bool linkDown = false;
    const int result = AppendWriteRequest(request, &linkDown);
    if (linkDown) WriteDataToLocal(&request);
    return result;
}

// "0x" and "4x_bit": one request per bit.
int queueBitWrites(RW_VAR &request, int address, const QByteArray &value, int count) {
    int result = 0;
    for (int i = 0; i < count; ++i) {
        request.address = static_cast<int>(static_cast<unsigned int>(address) + i);
        request.count = 1;
        request.value = QByteArray(1, i < value.size() ? value.at(i) : '\0');
        result = offerWrite(request);
    }
    return result;
}

// The bytes of registers [first, first + registers) of value, zeros where value ends.
QByteArray registerBytes(const QByteArray &value, qint64 first, int registers) {
    const qint64 size = qMin<qint64>(2 * qint64(registers), kMaxHostBytes);
    QByteArray bytes(static_cast<int>(size), '\0');
    const qint64 offset = 2 * first;
    const qint64 available = qBound<qint64>(0, value.size() - offset, size);
    if (available > 0) std::memcpy(bytes.data(), value.constData() + offset, available);
    return bytes;
}

// "4x" and "4x_double": split at maxFrameWords, paying no heed to 32-bit values.
int queueRegisterWrites(RW_VAR &request, int address, const QByteArray &value, int count) {
    const int limit = PLC_driver.comInfo->maxFrameWords;
    if (limit < 1 || count < 1) return 0;
    const int requests = count / limit + (count % limit != 0 ? 1 : 0);
    int result = 0;
    for (int k = 0; k < requests; ++k) {
        const qint64 first = qint64(k) * limit;
        const bool last = k == requests - 1;
        request.address = static_cast<int>(static_cast<unsigned int>(address) + first);
        request.count = last && count % limit != 0 ? count % limit : limit;
        request.value = registerBytes(value, first, request.count);
        result = offerWrite(request);
    }
    return result;
}

void writeImage(RW_VAR *var) {
    const AreaKind kind = KindOfArea(var->area);
    switch (kind.shape) {
        case AreaShape::Bits:
            SetBitToUC(var->address, ImageBitTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::RegisterBits:
            SetBitToUS(var->address, ImageRegisterTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::Registers:
            SetWordToUS(var->address, ImageRegisterTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::Doubles:
            SetWordToUI(var->address, ImageRegisterTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::None:
            break;
    }
}

void writeStationBits(StationRecords &records, const RW_VAR &var, AreaTable table) {
    const int elements = qMin(var.count, var.value.size());
    for (int i = 0; i < elements; ++i) {
        const int bit = static_cast<int>(static_cast<unsigned int>(var.address) + i);
        EXTENDVAR &record = records.findOrCreate(var.station, table, bit & ~7);
        unsigned char byte =
            record.data.isEmpty() ? 0 : static_cast<unsigned char>(record.data.at(0));
        const unsigned char mask = static_cast<unsigned char>(1u << (bit & 7));
        byte = var.value.at(i) == 1 ? (byte | mask) : (byte & ~mask);
        record.data = QByteArray(1, static_cast<char>(byte));
    }
}

// The bit is taken from the first address for every element: requests from SetRegisterData
// carry one bit each.
void writeStationRegisterBits(StationRecords &records, const RW_VAR &var, AreaTable table) {
    const int byteIndex = (var.address & 15) >> 3;
    const char mask = static_cast<char>(1u << (var.address & 7));
    const int elements = qMin(var.count, var.value.size());
    for (int i = 0; i < elements; ++i) {
        const int bit = static_cast<int>(static_cast<unsigned int>(var.address) + i);
        EXTENDVAR &record = records.findOrCreate(var.station, table, bit >> 4);
        if (record.data.size() < 2) continue;
        const char state = var.value.at(i);
        const char old = record.data.at(byteIndex);
        if (state == 1) record.data[byteIndex] = static_cast<char>(old | mask);
        if (state == 0) record.data[byteIndex] = static_cast<char>(old & ~mask);
    }
}

void setRegisterRecord(StationRecords &records, const RW_VAR &var, AreaTable table, int offset,
                       int valueIndex) {
    const int address = static_cast<int>(static_cast<unsigned int>(var.address) + offset);
    records.findOrCreate(var.station, table, address).data = var.value.mid(valueIndex, 2);
}

void writeStationRegisters(StationRecords &records, const RW_VAR &var, AreaTable table) {
    for (int i = 0; i < var.count && 2 * qint64(i) + 1 < var.value.size(); ++i) {
        setRegisterRecord(records, var, table, i, 2 * i);
    }
}

// Records are kept by plain register, word-swapped as in the image.
void writeStationDoubles(StationRecords &records, const RW_VAR &var, AreaTable table) {
    for (int j = 0; j < var.count / 2 && 4 * qint64(j) + 3 < var.value.size(); ++j) {
        setRegisterRecord(records, var, table, 2 * j + 1, 4 * j);
        setRegisterRecord(records, var, table, 2 * j, 4 * j + 2);
    }
}

// Per-station records are kept under the plain table name ("0x", "1x", "3x", "4x").
void writeStation(const RW_VAR &var) {
    const AreaKind kind = KindOfArea(var.area);
    StationRecords records(PLC_driver);
    switch (kind.shape) {
        case AreaShape::Bits:
            writeStationBits(records, var, kind.table);
            break;
        case AreaShape::RegisterBits:
            writeStationRegisterBits(records, var, kind.table);
            break;
        case AreaShape::Registers:
            writeStationRegisters(records, var, kind.table);
            break;
        case AreaShape::Doubles:
            writeStationDoubles(records, var, kind.table);
            break;
        case AreaShape::None:
            break;
    }
}

}  // namespace

int SetRegisterData(const QString &area, int address, unsigned int station, const QByteArray &value,
                    int count) {
    if (address < 0 || PLC_driver.comInfo == nullptr) return 0;
    RW_VAR request = hostWriteRequest(area, static_cast<int>(station));
    if (PLC_driver.comInfo->workMode != kFramesAreSent) {
        // Cache only; even the read-only areas are written here, deliberately.
        request.address = address;
        request.count = count;
        request.value = value;
        WriteDataToLocal(&request);
        return 1;
    }
    if (area == area::kCoil || area == area::kHoldingRegBit) {
        return queueBitWrites(request, address, value, count);
    }
    if (area == area::kHoldingReg || area == area::kHoldingRegDouble) {
        return queueRegisterWrites(request, address, value, count);
    }
    return 0;
}

void WriteDataToLocal(RW_VAR *var) {
    Modbus_ASCII_Master &d = PLC_driver;
    DriverLock lock(d.imageMutex);
    if (d.comInfo != nullptr && d.comInfo->multiStation != 0) {
        writeStation(*var);
    } else {
        writeImage(var);
    }
}
