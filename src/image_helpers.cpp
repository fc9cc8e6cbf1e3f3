// SPDX-License-Identifier: MIT
// The local register image's bit and word helpers: copies between the image and the host's
// value bytes, bounded by the image.
#include <QByteArray>
#include <QtGlobal>

#include "driver_internal.h"
#include "modbus_ascii_master.h"

namespace {

unsigned int readBit(const unsigned char *area, qint64 bit) {
    return BitInImage(bit) ? (area[bit / 8] >> (bit % 8)) & 1u : 0u;
}

unsigned int readWordBit(const unsigned short *area, qint64 bit) {
    return bit >= 0 && WordInImage(bit / 16) ? (area[bit / 16] >> (bit % 16)) & 1u : 0u;
}

unsigned short readWord(const unsigned short *area, qint64 index) {
    return WordInImage(index) ? area[index] : 0;
}

void writeBit(unsigned char *area, qint64 bit, bool on) {
    if (!BitInImage(bit)) return;
    const unsigned char mask = static_cast<unsigned char>(1u << (bit % 8));
    area[bit / 8] = on ? (area[bit / 8] | mask) : (area[bit / 8] & ~mask);
}

void writeWordBit(unsigned short *area, qint64 bit, bool on) {
    if (bit < 0 || !WordInImage(bit / 16)) return;
    const unsigned short mask = static_cast<unsigned short>(1u << (bit % 16));
    area[bit / 16] = on ? (area[bit / 16] | mask) : (area[bit / 16] & ~mask);
}

unsigned char byteAt(const QByteArray &bytes, qint64 index) {
    return static_cast<unsigned char>(bytes.at(static_cast<int>(index)));
}

}  // namespace

void GetBitFromUC(QByteArray &out, unsigned char *area, int start, int count) {
    count = ClampedHostCount(count, 1);
    if (count < 1) return;
    char *dest = GrowHostArray(out, count);
    for (int i = 0; i < count; ++i) dest[i] = static_cast<char>(readBit(area, qint64(start) + i));
}

void GetBitFromUS(QByteArray &out, unsigned short *area, int start, int count) {
    count = ClampedHostCount(count, 1);
    if (count < 1) return;
    char *dest = GrowHostArray(out, count);
    for (int i = 0; i < count; ++i) {
        dest[i] = static_cast<char>(readWordBit(area, qint64(start) + i));
    }
}

void GetWordFromUS(QByteArray &out, unsigned short *area, int start, int count) {
    count = ClampedHostCount(count, 2);
    if (count < 1) return;
    char *dest = GrowHostArray(out, 2 * count);
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
        char *dest = GrowHostArray(out, 2);
        dest[0] = static_cast<char>(lo & 0xFF);
        dest[1] = static_cast<char>(lo >> 8);
        return;
    }
    const int pairs = ClampedHostCount(count, 2) / 2;
    if (pairs < 1) return;
    char *dest = GrowHostArray(out, 4 * pairs);
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
        WriteImageWord(area, qint64(start) + i, byteAt(*in, 2 * i) + 256u * byteAt(*in, 2 * i + 1));
    }
}

// A count of 1 writes nothing, unlike GetWordFromUI: deliberate.
void SetWordToUI(int start, unsigned short *area, QByteArray *in, int count) {
    const int pairs = count / 2;
    for (int p = 0; p < pairs && 4 * qint64(p) + 3 < in->size(); ++p) {
        const qint64 first = qint64(start) + 2 * p;
        WriteImageWord(area, first + 1, byteAt(*in, 4 * p) + 256u * byteAt(*in, 4 * p + 1));
        WriteImageWord(area, first, byteAt(*in, 4 * p + 2) + 256u * byteAt(*in, 4 * p + 3));
    }
}
