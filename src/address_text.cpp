// SPDX-License-Identifier: MIT
// Address texts: parsing, validation and multi-copy.
#include <QObject>
#include <QStringList>
#include <QVector>
#include <limits>

#include "driver_internal.h"
#include "modbus_ascii_master_api.h"

namespace {

// One user-visible text in both languages of the configuration tool.
struct Message {
    const char *chinese;
    const char *english;
};

const Message kKindMismatch = {QT_TR_NOOP("寄存器和地址类型不匹配!"),
                               QT_TR_NOOP("The register and address type isn't match!")};
const Message kEmptyAddress = {QT_TR_NOOP("寄存器地址不能为空!"),
                               QT_TR_NOOP("The register address can not be null!")};
const Message kBlankInAddress = {QT_TR_NOOP("寄存器地址不能包含空格!"),
                                 QT_TR_NOOP("The register address can not contain spaces!")};
const Message kBitFormat = {
    QT_TR_NOOP("地址格式: ddddd.DD, 范围: 0.0~65535.15, DD位地址0~15"),
    QT_TR_NOOP("Address Format: ddddd.DD, range: 0.0~65535.15, DD-bit addresses 0~15")};
const Message kDoubleFormat = {QT_TR_NOOP("地址格式: ddddd, 范围: 0~65534"),
                               QT_TR_NOOP("Address Format: ddddd, range: 0~65534")};
// The English text has no blank after the colon and says "0.0~65535"; hosts show it as is.
const Message kPlainFormat = {QT_TR_NOOP("地址格式: ddddd, 范围: 0~65535"),
                              QT_TR_NOOP("Address Format:ddddd, range: 0.0~65535")};
const Message kUnknownArea = {QT_TR_NOOP("无此寄存器!"), QT_TR_NOOP("Didn't have this register!")};
const Message kCopyBeyondLimit = {
    QT_TR_NOOP("复制已超出地址最大限制, 是否继续复制?"),
    QT_TR_NOOP("Copy has exceeded the maximum limit of the address, and whether to continue "
               "copying?")};

constexpr int kLanguageChinese = 0;
constexpr int kLanguageEnglish = 1;
constexpr int kDataKindBit = 0;
constexpr int kDataKindWord = 1;
constexpr int kKindMismatchResult = -2;
constexpr int kInvalidAddress = -1;
constexpr int kMaxBitDigits = 2;
constexpr unsigned int kHighestBit = 15;
constexpr qint64 kBitsPerRegister = 16;
constexpr qint64 kWordAreaEnd = 65536;                           // one past register 65535
constexpr qint64 kBitAreaEnd = kWordAreaEnd * kBitsPerRegister;  // one past 65535.15

// The message for the language flag; any flag other than 0 and 1 gets no text at all.
QString translated(const Message &message, int language) {
    if (language == kLanguageChinese) return QObject::tr(message.chinese);
    if (language == kLanguageEnglish) return QObject::tr(message.english);
    return QString();
}

bool isRegisterBitArea(const QString &areaName) {
    return KindOfArea(areaName).shape == AreaShape::RegisterBits;
}

bool isDoubleArea(const QString &areaName) {
    return KindOfArea(areaName).shape == AreaShape::Doubles;
}

// "0x", "1x", "3x", "4x": a plain coil or register number.
bool isPlainArea(const QString &areaName) {
    const AreaShape shape = KindOfArea(areaName).shape;
    return shape == AreaShape::Bits || shape == AreaShape::Registers;
}

// Areas that hold bit variables: coils, inputs and bits inside registers.
bool isBitArea(const QString &areaName) {
    const AreaShape shape = KindOfArea(areaName).shape;
    return shape == AreaShape::Bits || shape == AreaShape::RegisterBits;
}

// "ddddd.DD": register number, one point, a bit number 0..15 of at most two digits.
int registerBitTextToInt(const QString &text) {
    if (text.count(QLatin1Char('.')) != 1) return kInvalidAddress;
    const int point = text.indexOf(QLatin1Char('.'));
    const QString registerPart = text.left(point);
    const QString bitPart = text.mid(point + 1);
    bool registerOk = false;
    bool bitOk = false;
    const int registerNumber = registerPart.toInt(&registerOk, 10);
    const int bit = bitPart.toInt(&bitOk, 10);
    // Taken as unsigned, a negative bit number is above 15 as well.
    if (!registerOk || !bitOk || static_cast<unsigned int>(bit) > kHighestBit ||
        bitPart.size() > kMaxBitDigits) {
        return kInvalidAddress;
    }
    const qint64 encoded = registerNumber * kBitsPerRegister + bit;
    // The register number is not range-tested, but an address must still fit an int.
    if (encoded > std::numeric_limits<int>::max() || encoded < std::numeric_limits<int>::min()) {
        return kInvalidAddress;
    }
    return static_cast<int>(encoded);
}

// The area's range test of an encoded address: its format message, or an empty text.
QString checkRange(const QString &areaName, int address, int length, int language) {
    const qint64 end = static_cast<qint64>(address) + length;
    if (isRegisterBitArea(areaName)) {
        return address >= 0 && end <= kBitAreaEnd ? QString() : translated(kBitFormat, language);
    }
    if (isDoubleArea(areaName)) {
        return address >= 0 && end <= kWordAreaEnd ? QString()
                                                   : translated(kDoubleFormat, language);
    }
    if (isPlainArea(areaName)) {
        return address >= 0 && end <= kWordAreaEnd ? QString() : translated(kPlainFormat, language);
    }
    return translated(kUnknownArea, language);
}

// Where a copy may lie in one area, and what stands in for a copy beyond that.
struct CopyLimit {
    qint64 highestValid;
    const char *beyondText;
    int beyondAddress;
};

const CopyLimit kRegisterBitCopyLimit = {kBitAreaEnd - 1, "65535.15", 1048576};
const CopyLimit kDoubleCopyLimit = {65535, "65534", 65535};
const CopyLimit kPlainCopyLimit = {65536, "65535", 65536};

const CopyLimit &copyLimitOf(const QString &areaName) {
    if (isRegisterBitArea(areaName)) return kRegisterBitCopyLimit;
    if (isDoubleArea(areaName)) return kDoubleCopyLimit;
    return kPlainCopyLimit;
}

// "%u" of the address, or for a bit inside a register "%u.%02u" of register and bit.
QString copyText(const QString &areaName, int address) {
    if (isRegisterBitArea(areaName)) {
        return QString::asprintf("%u.%02u", static_cast<unsigned int>(address / kBitsPerRegister),
                                 static_cast<unsigned int>(address % kBitsPerRegister));
    }
    return QString::asprintf("%u", static_cast<unsigned int>(address));
}

}  // namespace

int fn_checkAddrType(QString &message, const QString &areaName, int language, int dataKind) {
    const int acceptedKind = isBitArea(areaName) ? kDataKindBit : kDataKindWord;
    if (dataKind == acceptedKind) return 1;
    if (language == kLanguageChinese || language == kLanguageEnglish) {
        message = translated(kKindMismatch, language);
    }
    return kKindMismatchResult;
}

int AddrStringToInt(const QString &areaName, const QString &text) {
    if (isRegisterBitArea(areaName)) return registerBitTextToInt(text);
    bool ok = false;
    const int address = text.toInt(&ok, 10);
    return ok ? address : kInvalidAddress;
}

QString CheckAddrCorrect(const QString &areaName, const QString &text, int *address, int length,
                         int language, int dataKind) {
    QString result;
    if (fn_checkAddrType(result, areaName, language, dataKind) < 0) return result;
    if (text.isEmpty()) return translated(kEmptyAddress, language);
    if (text.contains(QLatin1Char(' '))) return translated(kBlankInAddress, language);
    const int parsed = AddrStringToInt(areaName, text);
    if (address != nullptr) *address = parsed;
    return checkRange(areaName, parsed, length, language);
}

QString AddrMutilCopy(const QString &areaName, int start, int copies, int step, QStringList *texts,
                      QVector<int> *addresses, int language) {
    if (texts != nullptr) texts->clear();
    if (addresses != nullptr) addresses->clear();
    const CopyLimit &limit = copyLimitOf(areaName);
    if (copies <= 1) return QString();

    bool exceeded = false;
    for (int i = 1; i < copies; ++i) {
        const qint64 next = start + static_cast<qint64>(i) * step;
        // A copy that no longer fits an int lies beyond every area anyway.
        const bool fitsInt =
            next >= std::numeric_limits<int>::min() && next <= std::numeric_limits<int>::max();
        const bool valid = fitsInt && next <= limit.highestValid;
        if (!valid) exceeded = true;
        const int copyAddress = valid ? static_cast<int>(next) : limit.beyondAddress;
        const QString text =
            valid ? copyText(areaName, copyAddress) : QString::fromLatin1(limit.beyondText);
        if (texts != nullptr) texts->append(text);
        if (addresses != nullptr) addresses->append(copyAddress);
    }
    return exceeded ? translated(kCopyBeyondLimit, language) : QString();
}
