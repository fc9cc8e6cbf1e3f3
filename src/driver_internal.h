// SPDX-License-Identifier: MIT
// Internal functions of the driver, shared between its source files and the unit tests.
// Nothing here is exported from the shared library.
#ifndef MODBUS_ASCII_DRIVER_INTERNAL_H
#define MODBUS_ASCII_DRIVER_INTERNAL_H

#include <QByteArray>
#include <QLatin1String>
#include <QList>
#include <QMutex>
#include <QString>

#include "modbus_ascii_master.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#endif

// Scoped lock of one driver mutex. QMutex's contended path runs inside the uninstrumented
// Qt library, so the guard tells ThreadSanitizer about the ordering itself.
class DriverLock {
public:
    explicit DriverLock(QMutex &mutex) : mutex_(mutex) {
        mutex_.lock();
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(&mutex_);
#endif
    }
    ~DriverLock() {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(&mutex_);
#endif
        mutex_.unlock();
    }
    DriverLock(const DriverLock &) = delete;
    DriverLock &operator=(const DriverLock &) = delete;

private:
    QMutex &mutex_;
};

// ---- Area names -------------------------------------------------------------------------
namespace area {
template <int N>
constexpr QLatin1String name(const char (&text)[N]) {
    return QLatin1String(text, N - 1);
}
inline constexpr QLatin1String kCoil = name("0x");
inline constexpr QLatin1String kInputBit = name("1x");
inline constexpr QLatin1String kInputReg = name("3x");
inline constexpr QLatin1String kHoldingReg = name("4x");
inline constexpr QLatin1String kInputRegBit = name("3x_bit");
inline constexpr QLatin1String kHoldingRegBit = name("4x_bit");
inline constexpr QLatin1String kInputRegDouble = name("3x_double");
inline constexpr QLatin1String kHoldingRegDouble = name("4x_double");
}  // namespace area

// The Modbus table an area name reads and writes; the values are the kinds of the read
// list's group key.
enum class AreaTable : int {
    None = -1,
    Coils = 0,
    InputBits = 1,
    InputRegisters = 2,
    HoldingRegisters = 3,
};

// How an area's elements lie in its table.
enum class AreaShape { None, Bits, RegisterBits, Registers, Doubles };

struct AreaKind {
    AreaTable table;
    AreaShape shape;
};

namespace area {
// Whether the characters of name from index on are exactly text.
template <int N>
bool tailIs(const QString &name, int index, const char (&text)[N]) {
    if (name.size() != index + N - 1) return false;
    for (int i = 0; i < N - 1; ++i) {
        if (name.at(index + i) != QLatin1Char(text[i])) return false;
    }
    return true;
}
}  // namespace area

// The eight area names, compared exactly and case-sensitively; any other name is None. The
// characters are looked at directly: this runs several times per transaction.
inline AreaKind KindOfArea(const QString &name) {
    const AreaKind none{AreaTable::None, AreaShape::None};
    if (name.size() < 2 || name.at(1) != QLatin1Char('x')) return none;
    const char16_t digit = name.at(0).unicode();
    if (name.size() == 2) {
        if (digit == u'0') return {AreaTable::Coils, AreaShape::Bits};
        if (digit == u'1') return {AreaTable::InputBits, AreaShape::Bits};
        if (digit == u'3') return {AreaTable::InputRegisters, AreaShape::Registers};
        if (digit == u'4') return {AreaTable::HoldingRegisters, AreaShape::Registers};
        return none;
    }
    if (digit != u'3' && digit != u'4') return none;
    const AreaTable table = digit == u'3' ? AreaTable::InputRegisters : AreaTable::HoldingRegisters;
    if (area::tailIs(name, 2, "_bit")) return {table, AreaShape::RegisterBits};
    if (area::tailIs(name, 2, "_double")) return {table, AreaShape::Doubles};
    return none;
}

// The plain area name of a table ("0x", "1x", "3x", "4x"), empty for None. Per-station
// records are kept under it.
inline QLatin1String TableName(AreaTable table) {
    switch (table) {
        case AreaTable::Coils:
            return area::kCoil;
        case AreaTable::InputBits:
            return area::kInputBit;
        case AreaTable::InputRegisters:
            return area::kInputReg;
        case AreaTable::HoldingRegisters:
            return area::kHoldingReg;
        case AreaTable::None:
            break;
    }
    return QLatin1String();
}

// The frame at the head of sendList, read without detaching the list. Should a host hold a
// copy of sendList, a detach would move the driver's frames to new storage, away from the
// pointer ComCommunication handed out; the frame has to stay put until DataCom removes it.
inline const Protocol &HeadFrame() {
    return PLC_driver.sendList.constFirst();
}

// Sizes of the four image arrays, in elements.
constexpr int kBitAreaBytes = 8193;
constexpr int kWordAreaWords = 65536;

// ---- Image bounds, shared by reply storage, the image helpers and host values -------------
// Host output arrays are never grown beyond this, whatever count a caller passes.
constexpr qint64 kMaxHostBytes = qint64(1) << 28;

// An element outside the image reads as 0, a write to it is dropped.
inline bool BitInImage(qint64 bit) {
    return bit >= 0 && bit / 8 < kBitAreaBytes;
}
inline bool WordInImage(qint64 index) {
    return index >= 0 && index < kWordAreaWords;
}
inline void WriteImageWord(unsigned short *area, qint64 index, unsigned int value) {
    if (WordInImage(index)) area[index] = static_cast<unsigned short>(value);
}

// The elements of count that fit into a host array of bytesPerElement each.
inline int ClampedHostCount(int count, int bytesPerElement) {
    return static_cast<int>(qMin<qint64>(count, kMaxHostBytes / bytesPerElement));
}

// Grows out to size bytes when it is shorter; bytes beyond are kept as they are.
inline char *GrowHostArray(QByteArray &out, int size) {
    if (out.size() < size) out.resize(size);
    return out.data();
}

// The image array of a bit table, or of a register table.
inline unsigned char *ImageBitTable(AreaTable table) {
    return table == AreaTable::InputBits ? PLC_driver.inputBitArea : PLC_driver.coilArea;
}
inline unsigned short *ImageRegisterTable(AreaTable table) {
    return table == AreaTable::InputRegisters ? PLC_driver.inputRegArea : PLC_driver.holdingRegArea;
}

// ---- Frame codec (frame_builder.cpp encodes, reply_codec.cpp reads replies) -------------
// Takes the head frame off sendList; its character buffer is kept for the next frame built
// when nothing else (a host's copy of the list or of the frame) still shares it.
void RemoveHeadFrame();
// Modbus ASCII LRC of binary bytes: ((~sum) & 0xFF) + 1, so 256 when the sum's low byte is 0.
unsigned int ComputeLrc(const QByteArray &binary);
inline unsigned int LrcOfSum(unsigned int sum) {
    return ((~sum) & 0xFFu) + 1u;
}
// ':' + two upper-case hex digits per byte + LRC + CR LF.
QByteArray EncodeFrame(const QByteArray &binary);
// Appends the two upper-case hex digits of the low 8 bits of value.
void AppendHexByte(QByteArray &text, unsigned int value);
// The tolerant digit rule, unmasked: below '0' 0, '0'..'?' c-0x30, '@' 0, above '@' c-0x37.
int DigitValue(unsigned char c);
// The same rule without a table or branches, so that loops over a reply vectorise.
constexpr unsigned int DigitOf(unsigned char c) {
    const unsigned int offset = c <= '?' ? 0x30u : 0x37u;
    return c < '0' || c == '@' ? 0u : c - offset;
}
// DigitOf masked to 4 bits, by character: for the short loops, which a table serves better
// than arithmetic.
struct MaskedDigits {
    unsigned char value[256];
};
constexpr MaskedDigits MakeMaskedDigits() {
    MaskedDigits digits{};
    for (int c = 0; c < 256; ++c) {
        digits.value[c] =
            static_cast<unsigned char>(DigitOf(static_cast<unsigned char>(c)) & 0x0Fu);
    }
    return digits;
}
inline constexpr MaskedDigits kMaskedDigits = MakeMaskedDigits();
// Data byte from two characters through the table: the same value as DecodeDataByte.
inline unsigned int DataByteFromDigits(const char *text) {
    return kMaskedDigits.value[static_cast<unsigned char>(text[0])] * 16u +
           kMaskedDigits.value[static_cast<unsigned char>(text[1])];
}
// Register value from four characters, most significant digit first, each masked to 4 bits.
inline unsigned short RegisterFromDigits(const char *text) {
    const auto digit = [text](int i) {
        return static_cast<unsigned char>(DigitOf(static_cast<unsigned char>(text[i])) & 0x0Fu);
    };
    const auto high = static_cast<unsigned char>((digit(0) << 4) | digit(1));
    const auto low = static_cast<unsigned char>((digit(2) << 4) | digit(3));
    return static_cast<unsigned short>((high << 8) | low);
}
// Character at index of reply, or '\0' outside it.
unsigned char ReplyCharAt(const QByteArray &reply, int index);
// Data byte from two characters: (high * 16) & 0xF0 plus low & 0x0F.
unsigned char DecodeDataByte(unsigned char high, unsigned char low);
// Register value from the four characters starting at first, most significant digit first.
unsigned short DecodeRegister(const QByteArray &reply, int first);
// Whether the LRC characters at length-4, length-3 match the bytes from character 1.
bool ReplyLrcMatches(const QByteArray &reply, int length);

// ---- Request builders (frame_builder.cpp); called with listMutex held --------------------
void ReadRegister(RW_VAR *var);
void ReadBool(RW_VAR *var);
void ReadAnalog(RW_VAR *var);
void WriteRegister(RW_VAR *var);
void WriteBool(RW_VAR *var);
void WriteBool_WordOfBit(RW_VAR *var);
void WriteAnalog(RW_VAR *var);
// A function-16 frame has 4 x count + 19 characters for any count; none is built longer than
// a host array may grow (kMaxHostBytes), so a write of more registers is refused when queued.
constexpr int kMostRegistersInWrite = static_cast<int>((kMaxHostBytes - 19) / 4);
// Whether var is a register write of more registers than that.
bool WriteTooLongForFrame(const RW_VAR &var);
// Puts the register value and its LRC into the placeholder function-06 frame.
void PatchBitWriteFrame(Protocol &writeFrame, unsigned int registerValue);

// ---- Reply validation (reply_validation.cpp) and storage (reply_storage.cpp) -------------
// Called with listMutex held: the store reads writeList, which host threads append to.
int DealDataOfLocalArea(QByteArray *reply, int length);
int CheckGetData(QByteArray *reply, int length);
void SaveToLocalDataErea(QByteArray *reply);
void SaveBitToUC(QByteArray *reply, unsigned char *area);
void SaveWordToUS(QByteArray *reply, unsigned short *area);
void SpecialRegisterSave(QByteArray *reply, unsigned short *area);

// ---- Image helpers (image_helpers.cpp); callers hold imageMutex ---------------------------
void GetBitFromUC(QByteArray &out, unsigned char *area, int start, int count);
void GetBitFromUS(QByteArray &out, unsigned short *area, int start, int count);
void GetWordFromUS(QByteArray &out, unsigned short *area, int start, int count);
void GetWordFromUI(QByteArray &out, unsigned short *area, int start, int count);
void SetBitToUC(int start, unsigned char *area, QByteArray *in, int count);
void SetBitToUS(int start, unsigned short *area, QByteArray *in, int count);
void SetWordToUS(int start, unsigned short *area, QByteArray *in, int count);
void SetWordToUI(int start, unsigned short *area, QByteArray *in, int count);

// ---- Per-station records (station_records.cpp) and host values (host_*.cpp) --------------
// The first per-station record for (station, area, address), appended with four zero bytes
// when missing; a batch of lookups uses StationRecords (station_records.h) instead.
EXTENDVAR &FindOrCreateExtendVar(int station, const QString &areaName, int address);

// Writes request's value into the cache (image or per-station records); takes imageMutex.
void WriteDataToLocal(RW_VAR *var);

// ---- Driver object and scheduler (modbus_ascii_master.cpp) ------------------------------
// Appends a copy of var to writeList unless it holds 1024 requests; returns the list's
// length and tells, read under the same lock, whether the link is down.
int AppendWriteRequest(const RW_VAR &var, bool *linkDown);
// Called with listMutex held.
void quiryReadFinish(const QList<RW_VAR> &list);

// ---- Address utilities (address_text.cpp) ------------------------------------------------
int fn_checkAddrType(QString &message, const QString &areaName, int language, int dataKind);

#endif  // MODBUS_ASCII_DRIVER_INTERNAL_H
