// SPDX-License-Identifier: MIT
// Host value calls in cache mode and the address text functions, with arguments from the
// fuzz input, and what they must give back.
#include "values_and_texts.h"

#include <QStringList>
#include <QVector>
#include <climits>

#include "frame_check.h"
#include "image_edges.h"
#include "modbus_ascii_master_api.h"

namespace fuzz {
namespace {

constexpr int kLanguageChinese = 0;
constexpr int kLanguageEnglish = 1;

bool isRegisterBitArea(const QString &area) {
    return area == QLatin1String("3x_bit") || area == QLatin1String("4x_bit");
}

bool isDoubleArea(const QString &area) {
    return area == QLatin1String("3x_double") || area == QLatin1String("4x_double");
}

// One past the last valid encoded address of an area.
long long areaEnd(const QString &area) {
    return isRegisterBitArea(area) ? 65536LL * 16 : 65536;
}

// The bytes a host read must give back after a host write of value: bits as 0 or 1.
QByteArray expectedReadBack(const QString &area, const QByteArray &value, int count) {
    if (!IsBitArea(area) && !isRegisterBitArea(area)) return value.left(2 * count);
    QByteArray bits = value.left(count);
    for (char &bit : bits) bit = bit == 1 ? 1 : 0;
    return bits;
}

// Whether a write of count elements from value at address reads back unchanged: it lies
// inside the area, value covers it, and it is not one of the shapes that by design don't
// come back (a 32-bit write of an odd count, per-station bit writes of more than one bit).
bool readsBack(const QString &area, int address, const QByteArray &value, int count,
               bool multiStation) {
    if (TableOfArea(area) < 0 || count < 1 || address < 0) return false;
    if (address + static_cast<long long>(count) > areaEnd(area)) return false;
    if (isDoubleArea(area) && count % 2 != 0) return false;
    if (isRegisterBitArea(area) && multiStation && count > 1) return false;
    const bool bits = IsBitArea(area) || isRegisterBitArea(area);
    return (bits ? value.size() : value.size() / 2) >= count;
}

// The value of an all-ASCII decimal text of at most nine digits, or -1.
long long plainNumber(const QString &text) {
    if (text.isEmpty() || text.size() > 9) return -1;
    long long number = 0;
    for (QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9')) return -1;
        number = number * 10 + (c.unicode() - '0');
    }
    return number;
}

// What AddrStringToInt must give for texts whose meaning is plain, -2 when it is not plain.
long long plainAddress(const QString &area, const QString &text) {
    if (!isRegisterBitArea(area)) {
        const long long number = plainNumber(text);
        return number < 0 ? -2 : number;
    }
    const int point = text.indexOf(QLatin1Char('.'));
    if (point < 0) return -2;
    const long long registerNumber = plainNumber(text.left(point));
    const QString bitText = text.mid(point + 1);
    const long long bit = plainNumber(bitText);
    if (registerNumber < 0 || bit < 0) return -2;
    if (bit > 15 || bitText.size() > 2) return -1;
    return registerNumber * 16 + bit;
}

void checkAddressText(const QString &area, const QString &text, int length, int language,
                      int dataKind) {
    const int parsed = AddrStringToInt(area, text);
    const long long plain = plainAddress(area, text);
    if (plain != -2 && plain <= 0x7FFFFFFF && parsed != plain) Fail("a plain address text misread");
    int address = -7;
    const QString message = CheckAddrCorrect(area, text, &address, length, language, dataKind);
    CheckAddrCorrect(area, text, nullptr, length, language, dataKind);
    if (address != -7 && address != parsed) Fail("the two address parsers disagree");
    if (!message.isEmpty() || (language != kLanguageChinese && language != kLanguageEnglish)) {
        return;
    }
    // No message: the text named an address whose span lies inside its area.
    const int bitKind = IsBitArea(area) || isRegisterBitArea(area) ? 0 : 1;
    if (TableOfArea(area) < 0 || dataKind != bitKind || text.isEmpty() ||
        text.contains(QLatin1Char(' ')) || address != parsed || parsed < 0 ||
        parsed + static_cast<long long>(length) > areaEnd(area)) {
        Fail("an address text was accepted that names no span inside its area");
    }
}

void checkMultiCopy(const QString &area, int start, int copies, int step, int language) {
    QStringList texts;
    QVector<int> addresses;
    const QString message = AddrMutilCopy(area, start, copies, step, &texts, &addresses, language);
    AddrMutilCopy(area, start, copies, step, nullptr, nullptr, language);
    const int expected = copies > 1 ? copies - 1 : 0;
    if (texts.size() != expected || addresses.size() != expected) {
        Fail("multi-copy gave another number of copies");
    }
    const long long highest = isRegisterBitArea(area) ? 65536LL * 16 - 1
                              : isDoubleArea(area)    ? 65535
                                                      : 65536;
    bool beyond = false;
    for (int i = 0; i < expected; ++i) {
        const long long wanted = start + static_cast<long long>(i + 1) * step;
        const bool valid = wanted >= INT_MIN && wanted <= highest;
        beyond |= !valid;
        if (valid && addresses[i] != wanted) Fail("a copy has the wrong address");
        if (!valid && addresses[i] != highest + (isRegisterBitArea(area) ? 1 : 0)) {
            Fail("a copy beyond the area does not stand at the area's end");
        }
    }
    const bool speaks = language == kLanguageChinese || language == kLanguageEnglish;
    if (speaks && beyond == message.isEmpty()) Fail("the multi-copy warning is wrong");
}

}  // namespace

void FuzzHostValues(InputReader &in, const ComInfo &info) {
    const QString area = in.areaName();
    const int address = in.edgyInt(70000);
    const int station = in.byte() % 4;
    // A per-station read creates a record per element it reads: kept short for speed.
    const int count = in.edgyInt(300) % (info.multiStation != 0 ? 4096 : 70000);
    const QByteArray value = in.bytes(200);
    const ImageEdges before;
    SetRegisterData(area, address, static_cast<unsigned int>(station), value, count);
    before.CheckOnlyTouched(TableOfArea(area));
    QByteArray out(in.bytes(9));
    const int sizeBefore = out.size();
    const int read = GetRegisterData(area, address, station, out, count);
    if (read != (address < 0 ? 0 : 1)) Fail("GetRegisterData gave another result");
    if (out.size() > sizeBefore && out.size() > 2LL * count)
        Fail("a host read grew past its count");
    // Outside frame mode a host write goes to the cache alone.
    const bool cacheOnly = info.workMode != 2;
    if (cacheOnly && readsBack(area, address, value, count, info.multiStation != 0)) {
        const QByteArray expected = expectedReadBack(area, value, count);
        if (out.left(expected.size()) != expected) Fail("a host write did not read back");
    }
}

void FuzzAddressTexts(InputReader &in) {
    const QString area = in.areaName();
    const int length = in.edgyInt(20);
    const int language = in.byte() % 3;
    const int dataKind = in.byte() % 3;
    const int start = in.edgyInt(70000);
    const int copies = in.byte() % 8 == 0 ? in.edgyInt(300) % 2000 : in.byte() % 20;
    const int step = in.edgyInt(20);
    checkAddressText(area, in.unicodeText(24), length, language, dataKind);
    checkMultiCopy(area, start, copies, step, language);
}

}  // namespace fuzz
