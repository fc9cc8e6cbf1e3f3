// Reply validation, reply storage, the local register image helpers and the host's reads
// and writes of values.
#include <QByteArray>
#include <QString>
#include <climits>
#include <cstring>

#include "driver_internal.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

namespace {

constexpr int kCheckInvalid = 0;
constexpr int kCheckStore = 1;
constexpr int kCheckNothingToStore = 2;

constexpr int kAccepted = 1;
constexpr int kContentInvalid = 11;
constexpr int kNoReply = 41;
constexpr int kWrongLength = 71;

constexpr int kFramesAreSent = 2;  // workMode

// Host output arrays are never grown beyond this, whatever count a caller passes.
constexpr qint64 kMaxHostBytes = qint64(1) << 28;

// ---- Bounds of the image: an element outside reads as 0, a write to it is dropped --------

bool bitInImage(qint64 bit) {
    return bit >= 0 && bit / 8 < kBitAreaBytes;
}
bool wordInImage(qint64 index) {
    return index >= 0 && index < kWordAreaWords;
}

unsigned int readBit(const unsigned char *area, qint64 bit) {
    return bitInImage(bit) ? (area[bit / 8] >> (bit % 8)) & 1u : 0u;
}

unsigned int readWordBit(const unsigned short *area, qint64 bit) {
    return bit >= 0 && wordInImage(bit / 16) ? (area[bit / 16] >> (bit % 16)) & 1u : 0u;
}

unsigned short readWord(const unsigned short *area, qint64 index) {
    return wordInImage(index) ? area[index] : 0;
}

void writeWord(unsigned short *area, qint64 index, unsigned int value) {
    if (wordInImage(index)) area[index] = static_cast<unsigned short>(value);
}

void writeBit(unsigned char *area, qint64 bit, bool on) {
    if (!bitInImage(bit)) return;
    const unsigned char mask = static_cast<unsigned char>(1u << (bit % 8));
    area[bit / 8] = on ? (area[bit / 8] | mask) : (area[bit / 8] & ~mask);
}

void writeWordBit(unsigned short *area, qint64 bit, bool on) {
    if (bit < 0 || !wordInImage(bit / 16)) return;
    const unsigned short mask = static_cast<unsigned short>(1u << (bit % 16));
    area[bit / 16] = on ? (area[bit / 16] | mask) : (area[bit / 16] & ~mask);
}

// The elements of count that fit into a host array of bytesPerElement each.
int clampedCount(int count, int bytesPerElement) {
    return static_cast<int>(qMin<qint64>(count, kMaxHostBytes / bytesPerElement));
}

// Grows out to size bytes when it is shorter; bytes beyond are kept as they are.
char *growTo(QByteArray &out, int size) {
    if (out.size() < size) out.resize(size);
    return out.data();
}

unsigned char byteAt(const QByteArray &bytes, qint64 index) {
    return static_cast<unsigned char>(bytes.at(static_cast<int>(index)));
}

// ---- Reply storage ------------------------------------------------------------------------

// Read without detaching sendList, so that the frame a host holds is not moved (see
// ComCommunication).
const Protocol &headFrame() {
    return PLC_driver.sendList.constFirst();
}

// The image array of a bit table, or of a register table.
unsigned char *bitTable(AreaTable table) {
    return table == AreaTable::InputBits ? PLC_driver.inputBitArea : PLC_driver.coilArea;
}

unsigned short *registerTable(AreaTable table) {
    return table == AreaTable::InputRegisters ? PLC_driver.inputRegArea : PLC_driver.holdingRegArea;
}

// Stores every register of a register reply through store(index, value); returns the last
// value decoded, 0 when none was.
template <typename Store>
unsigned int forEachReplyRegister(const QByteArray &reply, const Protocol &head, Store store) {
    const int words = head.replyDataLength / 4;
    unsigned int last = 0;
    qint64 pos = qint64(head.replyDataStart) + 3;
    for (int w = 0; w < words; ++w, pos += 4) {
        if (pos >= reply.size()) {
            store(w, nullptr);
            continue;
        }
        last = DecodeRegister(reply, static_cast<int>(pos - 3));
        store(w, &last);
    }
    return last;
}

// The read half of a bit-in-register write was answered: put the register value, with the
// requested bit changed, into the waiting function-06 frame.
void completeBitWrite(unsigned int registerValue) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (headFrame().var.bitWriteMark != -1 || d.sendList.size() < 2) return;
    Protocol writeFrame = d.sendList.at(1);
    if (!d.writeList.isEmpty() && !d.writeList.first().value.isEmpty()) {
        const RW_VAR &request = d.writeList.first();
        const unsigned int mask = 1u << (request.address & 15);
        const char state = request.value.at(0);
        if (state == 1) registerValue |= mask;
        if (state == 0) registerValue &= ~mask;
    }
    PatchBitWriteFrame(writeFrame, registerValue & 0xFFFF);
    d.sendList[1] = writeFrame;
}

void saveBitsPerStation(const QByteArray &reply, const Protocol &head) {
    const int bytes = head.replyDataLength / 2;
    for (int k = 0; k < bytes; ++k) {
        const int address = static_cast<int>(static_cast<unsigned int>(head.var.address) + 8u * k);
        EXTENDVAR &record = FindOrCreateExtendVar(head.var.station, head.var.area, address);
        record.data.clear();
        const qint64 pos = qint64(head.replyDataStart) + 2 * k + 1;
        if (pos < reply.size()) {
            record.data.append(
                static_cast<char>(DecodeDataByte(ReplyCharAt(reply, static_cast<int>(pos - 1)),
                                                 ReplyCharAt(reply, static_cast<int>(pos)))));
        }
    }
}

unsigned int saveRegistersPerStation(const QByteArray &reply, const Protocol &head,
                                     const QString &family) {
    return forEachReplyRegister(reply, head, [&](int w, const unsigned int *value) {
        const int address = static_cast<int>(static_cast<unsigned int>(head.var.address) + w);
        EXTENDVAR &record = FindOrCreateExtendVar(head.var.station, family, address);
        record.data.clear();
        if (value == nullptr) return;
        record.data.append(static_cast<char>(*value & 0xFF));
        record.data.append(static_cast<char>(*value >> 8));
    });
}

void saveReplyPerStation(const QByteArray &reply) {
    const Protocol &head = headFrame();
    const AreaKind kind = KindOfArea(head.var.area);
    if (kind.shape == AreaShape::Bits) {
        saveBitsPerStation(reply, head);
        return;
    }
    if (kind.shape == AreaShape::None) return;
    const unsigned int last = saveRegistersPerStation(reply, head, TableName(kind.table));
    if (head.var.area == area::kHoldingRegBit) completeBitWrite(last);
}

void saveReplyToImage(QByteArray *reply) {
    const QString &name = headFrame().var.area;
    const AreaKind kind = KindOfArea(name);
    if (kind.shape == AreaShape::Bits) {
        SaveBitToUC(reply, bitTable(kind.table));
    } else if (name == area::kHoldingRegBit) {
        // Only holding registers are written bit by bit: this reply completes such a write.
        SpecialRegisterSave(reply, PLC_driver.holdingRegArea);
    } else if (kind.shape != AreaShape::None) {
        SaveWordToUS(reply, registerTable(kind.table));
    }
}

// ---- Host reads ---------------------------------------------------------------------------

void readImage(const QString &name, int address, QByteArray &out, int count) {
    const AreaKind kind = KindOfArea(name);
    switch (kind.shape) {
        case AreaShape::Bits:
            GetBitFromUC(out, bitTable(kind.table), address, count);
            break;
        case AreaShape::RegisterBits:
            GetBitFromUS(out, registerTable(kind.table), address, count);
            break;
        case AreaShape::Registers:
            GetWordFromUS(out, registerTable(kind.table), address, count);
            break;
        case AreaShape::Doubles:
            GetWordFromUI(out, registerTable(kind.table), address, count);
            break;
        case AreaShape::None:
            break;
    }
}

// Low and high byte of a per-station register record, 0 when it holds fewer than two.
void copyRegisterRecord(char *dest, const EXTENDVAR &record) {
    const bool present = record.data.size() >= 2;
    dest[0] = present ? record.data.at(0) : 0;
    dest[1] = present ? record.data.at(1) : 0;
}

void readStationBits(int station, const QString &name, int address, char *out, int count) {
    for (int i = 0; i < count; ++i) {
        const int bit = address + i;
        const EXTENDVAR &record = FindOrCreateExtendVar(station, name, (bit / 8) * 8);
        out[i] = record.data.isEmpty() ? 0 : (record.data.at(0) >> (bit % 8)) & 1;
    }
}

void readStationRegisterBits(int station, const QString &family, int address, char *out,
                             int count) {
    for (int i = 0; i < count; ++i) {
        const int bit = address + i;
        const EXTENDVAR &record = FindOrCreateExtendVar(station, family, bit / 16);
        const int byteIndex = (bit % 16) / 8;
        out[i] = record.data.size() > byteIndex ? (record.data.at(byteIndex) >> (bit % 8)) & 1 : 0;
    }
}

void readStationRegisters(int station, const QString &name, int address, char *out, int count) {
    for (int i = 0; i < count; ++i) {
        copyRegisterRecord(out + 2 * i, FindOrCreateExtendVar(station, name, address + i));
    }
}

void readStationDoubles(int station, const QString &family, int address, char *out, int pairs) {
    for (int p = 0; p < pairs; ++p) {
        copyRegisterRecord(out + 4 * p,
                           FindOrCreateExtendVar(station, family, address + 2 * p + 1));
        copyRegisterRecord(out + 4 * p + 2,
                           FindOrCreateExtendVar(station, family, address + 2 * p));
    }
}

// Per-station records are kept under the plain table name ("0x", "1x", "3x", "4x").
void readStation(const QString &name, int address, int station, QByteArray &out, int count) {
    // Addresses of the records must stay within int.
    count = qMin(count, INT_MAX - address);
    const AreaKind kind = KindOfArea(name);
    const QString key = TableName(kind.table);
    switch (kind.shape) {
        case AreaShape::Bits:
            count = clampedCount(count, 1);
            if (count >= 1) readStationBits(station, key, address, growTo(out, count), count);
            break;
        case AreaShape::RegisterBits:
            count = clampedCount(count, 1);
            if (count >= 1) {
                readStationRegisterBits(station, key, address, growTo(out, count), count);
            }
            break;
        case AreaShape::Registers:
            count = clampedCount(count, 2);
            if (count >= 1) {
                readStationRegisters(station, key, address, growTo(out, 2 * count), count);
            }
            break;
        case AreaShape::Doubles: {
            // Here a count of 1 yields nothing, unlike the single-station image.
            const int pairs = clampedCount(count, 2) / 2;
            if (pairs >= 1) {
                readStationDoubles(station, key, address, growTo(out, 4 * pairs), pairs);
            }
            break;
        }
        case AreaShape::None:
            break;
    }
}

// ---- Host writes --------------------------------------------------------------------------

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
            SetBitToUC(var->address, bitTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::RegisterBits:
            SetBitToUS(var->address, registerTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::Registers:
            SetWordToUS(var->address, registerTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::Doubles:
            SetWordToUI(var->address, registerTable(kind.table), &var->value, var->count);
            break;
        case AreaShape::None:
            break;
    }
}

void writeStationBits(const RW_VAR &var, const QString &key) {
    const int elements = qMin(var.count, var.value.size());
    for (int i = 0; i < elements; ++i) {
        const int bit = static_cast<int>(static_cast<unsigned int>(var.address) + i);
        EXTENDVAR &record = FindOrCreateExtendVar(var.station, key, bit & ~7);
        unsigned char byte =
            record.data.isEmpty() ? 0 : static_cast<unsigned char>(record.data.at(0));
        const unsigned char mask = static_cast<unsigned char>(1u << (bit & 7));
        byte = var.value.at(i) == 1 ? (byte | mask) : (byte & ~mask);
        record.data = QByteArray(1, static_cast<char>(byte));
    }
}

// The bit is taken from the first address for every element: requests from SetRegisterData
// carry one bit each.
void writeStationRegisterBits(const RW_VAR &var, const QString &key) {
    const int byteIndex = (var.address & 15) >> 3;
    const char mask = static_cast<char>(1u << (var.address & 7));
    const int elements = qMin(var.count, var.value.size());
    for (int i = 0; i < elements; ++i) {
        const int bit = static_cast<int>(static_cast<unsigned int>(var.address) + i);
        EXTENDVAR &record = FindOrCreateExtendVar(var.station, key, bit >> 4);
        if (record.data.size() < 2) continue;
        const char state = var.value.at(i);
        const char old = record.data.at(byteIndex);
        if (state == 1) record.data[byteIndex] = static_cast<char>(old | mask);
        if (state == 0) record.data[byteIndex] = static_cast<char>(old & ~mask);
    }
}

void setRegisterRecord(const RW_VAR &var, const QString &key, int offset, int valueIndex) {
    const int address = static_cast<int>(static_cast<unsigned int>(var.address) + offset);
    FindOrCreateExtendVar(var.station, key, address).data = var.value.mid(valueIndex, 2);
}

void writeStationRegisters(const RW_VAR &var, const QString &key) {
    for (int i = 0; i < var.count && 2 * qint64(i) + 1 < var.value.size(); ++i) {
        setRegisterRecord(var, key, i, 2 * i);
    }
}

// Records are kept by plain register, word-swapped as in the image.
void writeStationDoubles(const RW_VAR &var, const QString &key) {
    for (int j = 0; j < var.count / 2 && 4 * qint64(j) + 3 < var.value.size(); ++j) {
        setRegisterRecord(var, key, 2 * j + 1, 4 * j);
        setRegisterRecord(var, key, 2 * j, 4 * j + 2);
    }
}

// Per-station records are kept under the plain table name ("0x", "1x", "3x", "4x").
void writeStation(const RW_VAR &var) {
    const AreaKind kind = KindOfArea(var.area);
    const QString key = TableName(kind.table);
    switch (kind.shape) {
        case AreaShape::Bits:
            writeStationBits(var, key);
            break;
        case AreaShape::RegisterBits:
            writeStationRegisterBits(var, key);
            break;
        case AreaShape::Registers:
            writeStationRegisters(var, key);
            break;
        case AreaShape::Doubles:
            writeStationDoubles(var, key);
            break;
        case AreaShape::None:
            break;
    }
}

void rebuildExtendIndex(Modbus_ASCII_Master &d) {
    d.extendIndex.clear();
    for (int i = 0; i < d.extendList.size(); ++i) {
        const EXTENDVAR &record = d.extendList.at(i);
        const ExtendKey key{record.station, record.area, record.address};
        if (!d.extendIndex.contains(key)) d.extendIndex.insert(key, i);  // first match wins
    }
}

}  // namespace

// ---- Reply validation ---------------------------------------------------------------------

int DealDataOfLocalArea(QByteArray *reply, int length) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (d.sendList.isEmpty()) return kContentInvalid;
    const Protocol &head = headFrame();
    const int ownerType = head.var.ownerType;
    const int k = ownerType >= 1 && ownerType <= 11 ? ownerType : 0;
    if (length == 0) {
        if (head.replyLength != 0) return kNoReply + k;
    } else if (length != head.replyLength && head.replyLength != -1) {
        // The expected length alone tells a normal reply from an exception reply.
        return kWrongLength + k;
    }
    const int check = CheckGetData(reply, length);
    if (check == kCheckStore) {
        // The store reads writeList, which host threads append to.
        DriverLock lists(d.listMutex);
        DriverLock image(d.imageMutex);
        SaveToLocalDataErea(reply);
        return kAccepted;
    }
    return check == kCheckNothingToStore ? kAccepted : kContentInvalid + k;
}

int CheckGetData(QByteArray *reply, int length) {
    if (PLC_driver.sendList.isEmpty()) return kCheckInvalid;
    const Protocol &head = headFrame();
    if (head.var.station == 0 && length == 0) return kCheckNothingToStore;
    if (qint64(length) - 2 > reply->size()) return kCheckInvalid;
    if (!ReplyLrcMatches(*reply, length)) return kCheckInvalid;
    if (head.var.direction == 0) return kCheckStore;
    if (head.var.direction == 1) return kCheckNothingToStore;
    return kCheckInvalid;
}

// ---- Reply storage ------------------------------------------------------------------------

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
    const Protocol &head = headFrame();
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
    const qint64 start = headFrame().var.address;
    forEachReplyRegister(*reply, headFrame(), [&](int w, const unsigned int *value) {
        if (value != nullptr) writeWord(area, start + w, *value);
    });
}

void SpecialRegisterSave(QByteArray *reply, unsigned short *area) {
    const qint64 start = headFrame().var.address;
    const unsigned int last =
        forEachReplyRegister(*reply, headFrame(), [&](int w, const unsigned int *value) {
            if (value != nullptr) writeWord(area, start + w, *value);
        });
    completeBitWrite(last);
}

// ---- Image helpers ------------------------------------------------------------------------

void GetBitFromUC(QByteArray &out, unsigned char *area, int start, int count) {
    count = clampedCount(count, 1);
    if (count < 1) return;
    char *dest = growTo(out, count);
    for (int i = 0; i < count; ++i) dest[i] = static_cast<char>(readBit(area, qint64(start) + i));
}

void GetBitFromUS(QByteArray &out, unsigned short *area, int start, int count) {
    count = clampedCount(count, 1);
    if (count < 1) return;
    char *dest = growTo(out, count);
    for (int i = 0; i < count; ++i) {
        dest[i] = static_cast<char>(readWordBit(area, qint64(start) + i));
    }
}

void GetWordFromUS(QByteArray &out, unsigned short *area, int start, int count) {
    count = clampedCount(count, 2);
    if (count < 1) return;
    char *dest = growTo(out, 2 * count);
    for (int i = 0; i < count; ++i) {
        const unsigned short w = readWord(area, qint64(start) + i);
        dest[2 * i] = static_cast<char>(w & 0xFF);
        dest[2 * i + 1] = static_cast<char>(w >> 8);
    }
}

// A 32-bit variable read with a count of one yields its low-order word: deliberate.
void GetWordFromUI(QByteArray &out, unsigned short *area, int start, int count) {
    if (count == 1) {
        const unsigned short lo = readWord(area, qint64(start) + 1);
        char *dest = growTo(out, 2);
        dest[0] = static_cast<char>(lo & 0xFF);
        dest[1] = static_cast<char>(lo >> 8);
        return;
    }
    const int pairs = clampedCount(count, 2) / 2;
    if (pairs < 1) return;
    char *dest = growTo(out, 4 * pairs);
    for (int p = 0; p < pairs; ++p) {
        const unsigned short lo = readWord(area, qint64(start) + 2 * p + 1);
        const unsigned short hi = readWord(area, qint64(start) + 2 * p);
        dest[4 * p] = static_cast<char>(lo & 0xFF);
        dest[4 * p + 1] = static_cast<char>(lo >> 8);
        dest[4 * p + 2] = static_cast<char>(hi & 0xFF);
        dest[4 * p + 3] = static_cast<char>(hi >> 8);
    }
}

// Only a byte of exactly 1 sets a bit; any other value clears it.
void SetBitToUC(int start, unsigned char *area, QByteArray *in, int count) {
    const int elements = qMin(count, in->size());
    for (int i = 0; i < elements; ++i) writeBit(area, qint64(start) + i, in->at(i) == 1);
}

void SetBitToUS(int start, unsigned short *area, QByteArray *in, int count) {
    const int elements = qMin(count, in->size());
    for (int i = 0; i < elements; ++i) writeWordBit(area, qint64(start) + i, in->at(i) == 1);
}

void SetWordToUS(int start, unsigned short *area, QByteArray *in, int count) {
    for (int i = 0; i < count && 2 * qint64(i) + 1 < in->size(); ++i) {
        writeWord(area, qint64(start) + i, byteAt(*in, 2 * i) + 256u * byteAt(*in, 2 * i + 1));
    }
}

// A count of 1 writes nothing, unlike GetWordFromUI: deliberate.
void SetWordToUI(int start, unsigned short *area, QByteArray *in, int count) {
    const int pairs = count / 2;
    for (int p = 0; p < pairs && 4 * qint64(p) + 3 < in->size(); ++p) {
        const qint64 first = qint64(start) + 2 * p;
        writeWord(area, first + 1, byteAt(*in, 4 * p) + 256u * byteAt(*in, 4 * p + 1));
        writeWord(area, first, byteAt(*in, 4 * p + 2) + 256u * byteAt(*in, 4 * p + 3));
    }
}

// ---- Per-station records ------------------------------------------------------------------

namespace {

bool recordHasKey(const EXTENDVAR &record, const ExtendKey &key) {
    return record.station == key.station && record.address == key.address &&
           record.area == key.area;
}

// The index is rebuilt whenever it no longer describes the list, also when a host changed
// the public list behind the driver's back.
int indexedPosition(Modbus_ASCII_Master &d, const ExtendKey &key) {
    if (d.extendIndex.size() != d.extendList.size()) rebuildExtendIndex(d);
    int position = d.extendIndex.value(key, -1);
    if (position >= d.extendList.size() ||
        (position >= 0 && !recordHasKey(d.extendList.at(position), key))) {
        rebuildExtendIndex(d);
        position = d.extendIndex.value(key, -1);
    }
    return position;
}

}  // namespace

EXTENDVAR &FindOrCreateExtendVar(int station, const QString &areaName, int address) {
    Modbus_ASCII_Master &d = PLC_driver;
    const ExtendKey key{station, areaName, address};
    const int position = indexedPosition(d, key);
    if (position >= 0) return d.extendList[position];
    EXTENDVAR record;
    record.station = station;
    record.area = areaName;
    record.address = address;
    record.data = QByteArray(4, '\0');
    d.extendList.append(record);
    d.extendIndex.insert(key, d.extendList.size() - 1);
    return d.extendList.last();
}

// ---- Host values --------------------------------------------------------------------------

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
