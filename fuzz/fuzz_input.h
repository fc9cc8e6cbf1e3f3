// SPDX-License-Identifier: MIT
// The fuzz input as a stream of host arguments: numbers that favour the edges, area names
// that are sometimes right and sometimes any text, and texts of arbitrary UTF-16.
#ifndef MODBUS_FUZZ_INPUT_H
#define MODBUS_FUZZ_INPUT_H

#include <QByteArray>
#include <QChar>
#include <QString>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace fuzz {

// Reads the input front to back; past its end every value is 0.
class InputReader {
public:
    InputReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    bool atEnd() const { return pos_ >= size_; }
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    bool flag() { return byte() & 1; }
    int word() { return byte() << 8 | byte(); }
    int signedInt() { return static_cast<int>(static_cast<uint32_t>(word()) << 16 | word()); }

    // A count, address or length: mostly small, often an edge of an area or of int, now and
    // then any 16- or 32-bit number.
    int edgyInt(int smallRange) {
        static const int kEdges[] = {0,       1,       -1,      7,       8,           15,
                                     16,      123,     124,     125,     126,         2000,
                                     8192,    8193,    65534,   65535,   65536,       65537,
                                     1048575, 1048576, INT_MAX, INT_MIN, INT_MAX - 1, -65536};
        const uint8_t kind = byte() % 8;
        if (kind < 4) return word() % smallRange;
        if (kind < 6) return kEdges[byte() % (sizeof kEdges / sizeof kEdges[0])];
        return kind == 6 ? word() : signedInt();
    }

    // One of the eight area names, a near miss, or any text at all.
    QString areaName() {
        static const char *const kNames[] = {
            "0x",        "1x", "3x", "4x",  "3x_bit", "4x_bit", "3x_double",
            "4x_double", "5x", "4X", "4x ", "",       "0x_bit", "4x_double2"};
        const uint8_t pick = byte();
        if (pick < 240) return QString::fromLatin1(kNames[pick % 14]);
        return unicodeText(byte() % 12);
    }

    // Up to maxUnits UTF-16 units of any value: lone and paired surrogates, NULs, non-BMP
    // characters, or (most of the time) characters an address text is made of.
    QString unicodeText(int maxUnits) {
        static const char16_t kAddressChars[] = {u'0',      u'1',      u'5', u'9',  u'.',
                                                 u'-',      u'+',      u' ', u'\t', u'\0',
                                                 u'\u0660', u'\uFF10', u'e', u'x'};
        QString text;
        const int units = byte() % (maxUnits + 1);
        for (int i = 0; i < units && !atEnd(); ++i) {
            const uint8_t kind = byte();
            if (kind < 160) {
                text.append(QChar(kAddressChars[kind % 14]));
            } else if (kind < 200) {
                text.append(QChar(static_cast<char16_t>(word())));
            } else if (kind < 230) {
                const char32_t scalar = 0x10000 + (static_cast<uint32_t>(signedInt()) % 0x100000);
                text.append(QChar(QChar::highSurrogate(scalar)));
                text.append(QChar(QChar::lowSurrogate(scalar)));
            } else {
                text.append(QChar(static_cast<char16_t>(0xD800 + word() % 0x800)));
            }
        }
        return text;
    }

    QByteArray bytes(int maxSize) {
        QByteArray out;
        const int size = byte() % (maxSize + 1);
        for (int i = 0; i < size && !atEnd(); ++i) out.append(static_cast<char>(byte()));
        return out;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace fuzz

#endif  // MODBUS_FUZZ_INPUT_H
