// SPDX-License-Identifier: MIT
// Storing accepted read replies: into the local register image with one station, into the
// per-station records with several, and completing bit-in-register writes.
#include <QByteArray>
#include <QString>
#include <cstring>

#include "driver_internal.h"
#include "modbus_ascii_master.h"
#include "station_records.h"

namespace {

// Below this many registers a loop of table look-ups beats setting up a vector loop.
constexpr int kFewRegisters = 8;

// Stores every register of a register reply through store(index, value); returns the last
// value decoded, 0 when none was.
template <typename Store>
unsigned int forEachReplyRegister(const QByteArray &reply, const Protocol &head, Store store) {
    const int words = head.replyDataLength / 4;
    unsigned int last = 0;
    const char *text = reply.constData();
    qint64 pos = qint64(head.replyDataStart) + 3;
    for (int w = 0; w < words; ++w, pos += 4) {
        if (pos >= reply.size()) {
            store(w, nullptr);
            continue;
        }
        // Decoded in place; DecodeRegister reads '\0' before a reply that starts too early.
        last = pos >= 3 ? RegisterFromDigits(text + pos - 3)
                        : DecodeRegister(reply, static_cast<int>(pos - 3));
        store(w, &last);
    }
    return last;
}

// The read half of a bit-in-register write was answered: put the register value, with the
// requested bit changed, into the waiting function-06 frame.
void completeBitWrite(unsigned int registerValue) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (HeadFrame().var.bitWriteMark != -1 || d.sendList.size() < 2) return;
    Protocol &writeFrame = d.sendList[1];
    if (!d.writeList.isEmpty() && !d.writeList.first().value.isEmpty()) {
        const RW_VAR &request = d.writeList.first();
        const unsigned int mask = 1u << (request.address & 15);
        const char state = request.value.at(0);
        if (state == 1) registerValue |= mask;
        if (state == 0) registerValue &= ~mask;
    }
    PatchBitWriteFrame(writeFrame, registerValue & 0xFFFF);
}

// Register values from the four characters each of words registers at text.
void storeRegisters(const char *text, int words, unsigned short *out) {
    if (words < kFewRegisters) {
        for (int w = 0; w < words; ++w, text += 4) {
            out[w] = static_cast<unsigned short>(DataByteFromDigits(text) << 8 |
                                                 DataByteFromDigits(text + 2));
        }
        return;
    }
    for (int w = 0; w < words; ++w) out[w] = RegisterFromDigits(text + 4 * w);
}

// A reply that ends early or reaches past the image: register by register, each checked.
// Out of line, so that the usual reply does not pay for its set-up. Returns what
// forEachReplyRegister returns: the last register's value.
__attribute__((noinline)) unsigned int saveClampedRegisters(const QByteArray &reply,
                                                            const Protocol &head,
                                                            unsigned short *area) {
    const qint64 start = head.var.address;
    return forEachReplyRegister(reply, head, [&](int w, const unsigned int *value) {
        if (value != nullptr) WriteImageWord(area, start + w, *value);
    });
}

// "4x_bit": the area of bit-in-register writes.
bool isHoldingRegisterBits(AreaKind kind) {
    return kind.shape == AreaShape::RegisterBits && kind.table == AreaTable::HoldingRegisters;
}

// Leaves exactly size bytes in data; the buffer is reused when it is large enough.
void setRecordData(QByteArray &data, const char *bytes, int size) {
    data.resize(size);
    std::memcpy(data.data(), bytes, size);
}

void saveBitsPerStation(StationRecords &records, AreaTable table, const QByteArray &reply,
                        const Protocol &head) {
    const int bytes = head.replyDataLength / 2;
    for (int k = 0; k < bytes; ++k) {
        const int address = static_cast<int>(static_cast<unsigned int>(head.var.address) + 8u * k);
        EXTENDVAR &record = records.findOrCreate(head.var.station, table, address);
        const qint64 pos = qint64(head.replyDataStart) + 2 * k + 1;
        if (pos >= reply.size()) {
            record.data.clear();
            continue;
        }
        const char byte =
            static_cast<char>(DecodeDataByte(ReplyCharAt(reply, static_cast<int>(pos - 1)),
                                             ReplyCharAt(reply, static_cast<int>(pos))));
        setRecordData(record.data, &byte, 1);
    }
}

unsigned int saveRegistersPerStation(StationRecords &records, AreaTable table,
                                     const QByteArray &reply, const Protocol &head) {
    return forEachReplyRegister(reply, head, [&](int w, const unsigned int *value) {
        const int address = static_cast<int>(static_cast<unsigned int>(head.var.address) + w);
        EXTENDVAR &record = records.findOrCreate(head.var.station, table, address);
        if (value == nullptr) {
            record.data.clear();
            return;
        }
        const char bytes[2] = {static_cast<char>(*value & 0xFF), static_cast<char>(*value >> 8)};
        setRecordData(record.data, bytes, 2);
    });
}

// Per-station records are kept under the plain table name ("0x", "1x", "3x", "4x").
void saveReplyPerStation(const QByteArray &reply) {
    const Protocol &head = HeadFrame();
    const AreaKind kind = KindOfArea(head.var.area);
    if (kind.shape == AreaShape::None) return;
    StationRecords records(PLC_driver);
    if (kind.shape == AreaShape::Bits) {
        saveBitsPerStation(records, kind.table, reply, head);
        return;
    }
    const unsigned int last = saveRegistersPerStation(records, kind.table, reply, head);
    if (isHoldingRegisterBits(kind)) completeBitWrite(last);
}

void saveReplyToImage(QByteArray *reply) {
    const AreaKind kind = KindOfArea(HeadFrame().var.area);
    if (kind.shape == AreaShape::Bits) {
        SaveBitToUC(reply, ImageBitTable(kind.table));
    } else if (isHoldingRegisterBits(kind)) {
        // Only holding registers are written bit by bit: this reply completes such a write.
        SpecialRegisterSave(reply, PLC_driver.holdingRegArea);
    } else if (kind.shape != AreaShape::None) {
        SaveWordToUS(reply, ImageRegisterTable(kind.table));
    }
}

}  // namespace

void SaveToLocalDataErea(QByteArray *reply) {
    if (PLC_driver.sendList.isEmpty()) return;
    if (PLC_driver.comInfo != nullptr && PLC_driver.comInfo->multiStation != 0) {
        saveReplyPerStation(*reply);
    } else {
        saveReplyToImage(reply);
    }
}

// Runs replyDataLength times although a reply of N data bytes has 2N data characters, so
// the LRC and the CR LF pair land in the two bytes after the data: deliberately kept.
void SaveBitToUC(QByteArray *reply, unsigned char *area) {
    const Protocol &head = HeadFrame();
    const qint64 firstByte = head.var.address / 8;
    qint64 pos = qint64(head.replyDataStart) + 1;
    for (int k = 0; k < head.replyDataLength && pos < reply->size(); ++k, pos += 2) {
        const qint64 index = firstByte + k;
        if (index < 0 || index >= kBitAreaBytes) continue;
        area[index] = DecodeDataByte(ReplyCharAt(*reply, static_cast<int>(pos - 1)),
                                     ReplyCharAt(*reply, static_cast<int>(pos)));
    }
}

// No byte swapping: 32-bit areas keep the wire order, high-order register first.
void SaveWordToUS(QByteArray *reply, unsigned short *area) {
    const Protocol &head = HeadFrame();
    const qint64 start = head.var.address;
    const int words = head.replyDataLength / 4;
    const qint64 first = head.replyDataStart;
    // The usual reply: every register inside the reply and inside the image.
    if (words > 0 && first >= 0 && first + 4 * qint64(words) <= reply->size() && start >= 0 &&
        start + words <= kWordAreaWords) {
        storeRegisters(reply->constData() + first, words, area + start);
        return;
    }
    saveClampedRegisters(*reply, head, area);
}

void SpecialRegisterSave(QByteArray *reply, unsigned short *area) {
    completeBitWrite(saveClampedRegisters(*reply, HeadFrame(), area));
}
