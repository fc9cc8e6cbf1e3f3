// SPDX-License-Identifier: MIT
// Modbus ASCII frame encoding and the builders of read and write request frames.
#include <QByteArray>
#include <cstring>
#include <utility>

#include "driver_internal.h"
#include "modbus_ascii_master.h"

namespace {

// Offsets of a function-06 frame: ':' SS FF RRRR VVVV LL CR LF.
constexpr int kWriteValueOffset = 9;
constexpr int kWriteLrcOffset = 13;
constexpr int kSingleWriteFrameLength = 17;
// A read request: ':' SS FF AAAA QQQQ LL CR LF.
constexpr int kReadFrameLength = 17;
// A function-16 frame without data: ':' SS 10 AAAA QQQQ NN LL CR LF.
constexpr int kMultipleWriteOverhead = 19;

// Replies: ':' SS FF NN data LL CR LF.
constexpr int kReplyDataStart = 7;
constexpr int kReplyOverhead = 11;
// A write is answered by a 17-character echo (or station, function, address and quantity).
constexpr int kWriteReplyLength = 17;

constexpr unsigned char kReadCoils = 1;
constexpr unsigned char kReadDiscreteInputs = 2;
constexpr unsigned char kReadHoldingRegisters = 3;
constexpr unsigned char kReadInputRegisters = 4;
constexpr unsigned char kWriteSingleCoil = 5;
constexpr unsigned char kWriteSingleRegister = 6;
constexpr unsigned char kWriteMultipleRegisters = 16;

// The two upper-case hex digits of every byte value.
struct HexPairs {
    char pair[256][2];
};
constexpr HexPairs makeHexPairs() {
    HexPairs pairs{};
    for (unsigned int b = 0; b < 256; ++b) {
        pairs.pair[b][0] = "0123456789ABCDEF"[b >> 4];
        pairs.pair[b][1] = "0123456789ABCDEF"[b & 0x0Fu];
    }
    return pairs;
}
constexpr HexPairs kHexPairs = makeHexPairs();

// Writes the two digits of the low 8 bits of value at out; returns the place after them.
char *putHexByte(char *out, unsigned int value) {
    std::memcpy(out, kHexPairs.pair[value & 0xFFu], 2);
    return out + 2;
}

unsigned int lrcOf(const unsigned char *binary, int size) {
    unsigned int sum = 0;
    for (int i = 0; i < size; ++i) sum += binary[i];
    return LrcOfSum(sum);
}

// Writes the characters of a frame into storage sized for it: ':', two upper-case hex digits
// per binary byte, then the LRC of those bytes, CR and LF.
class FrameWriter {
public:
    explicit FrameWriter(char *out) : out_(out) { *out_++ = ':'; }

    void byte(unsigned int value) {
        out_ = putHexByte(out_, value);
        sum_ += value & 0xFFu;  // only the sum's low byte counts, so wrapping is harmless
    }
    void word(unsigned int value) {
        byte(value >> 8);
        byte(value);
    }
    void finish() {
        out_ = putHexByte(out_, LrcOfSum(sum_));  // 256 gives "00"
        *out_++ = '\r';
        *out_ = '\n';
    }

private:
    char *out_;
    unsigned int sum_ = 0;
};

// The buffer of the last frame taken off sendList, when no one else held it. A cyclic poll
// then builds each request in the buffer of the one before, without an allocation. Touched
// only under listMutex, by the poll thread.
QByteArray spareFrame;
// A larger buffer (a long register write) is let go rather than kept.
constexpr int kLargestSpareFrame = 1024;

// size uninitialised characters, in the spare buffer when it is free and large enough.
QByteArray frameBuffer(int size) {
    QByteArray frame;
    frame.swap(spareFrame);
    if (frame.isDetached() && frame.capacity() >= size) {
        if (frame.size() != size) frame.resize(size);
        return frame;
    }
    return QByteArray(size, Qt::Uninitialized);
}

// ':' + two upper-case hex digits per byte + LRC + CR LF, written into one buffer.
QByteArray encodeFrame(const unsigned char *binary, int size) {
    QByteArray frame = frameBuffer(1 + 2 * size + 4);
    FrameWriter out(frame.data());
    for (int i = 0; i < size; ++i) out.byte(binary[i]);
    out.finish();
    return frame;
}

void appendWord(QByteArray &binary, unsigned int value) {
    binary.append(static_cast<char>((value >> 8) & 0xFF));
    binary.append(static_cast<char>(value & 0xFF));
}

// Station (low 8 bits), function code, then a 16-bit field, high byte first.
QByteArray requestHeader(int station, unsigned char function, int address) {
    QByteArray binary;
    binary.append(static_cast<char>(station & 0xFF));
    binary.append(static_cast<char>(function));
    appendWord(binary, static_cast<unsigned int>(address));
    return binary;
}

// Appends the frame record to sendList and fills it in place, so that the request is
// copied once, into the record's var.
void appendProtocol(const RW_VAR &var, QByteArray frame, int replyLength, int replyDataStart,
                    int replyDataLength) {
    static const Protocol blank;  // copied into the new element: no temporary to destroy
    QList<Protocol> &sendList = PLC_driver.sendList;
    sendList.append(blank);
    Protocol &p = sendList.last();
    p.frameLength = frame.size();
    p.frame = std::move(frame);
    // A broadcast is never answered.
    const bool answered = var.station != 0;
    p.replyLength = answered ? replyLength : 0;
    p.replyDataStart = answered ? replyDataStart : 0;
    p.replyDataLength = answered ? replyDataLength : 0;
    // Copied into a temporary and moved in: Qt's copy constructors and move assignments are
    // inline, its copy assignments are calls into the library.
    p.var = RW_VAR(var);
}

void setFrameCounters(int framesInRequest) {
    PLC_driver.comInfo->framesDone = 0;
    PLC_driver.comInfo->framesInRequest = framesInRequest;
}

// One read frame; reply sizes in characters per unit of count (2 per byte, 4 per register).
void queueRead(const RW_VAR &var, unsigned char function, unsigned int quantity, int charsPerUnit) {
    QByteArray frame = frameBuffer(kReadFrameLength);
    FrameWriter out(frame.data());
    out.byte(static_cast<unsigned int>(var.station));
    out.byte(function);
    out.word(static_cast<unsigned int>(var.address));
    out.word(quantity);
    out.finish();
    // Sizes wrap like the 32-bit host arithmetic; an absurd count can't overflow here.
    const unsigned int dataLength =
        static_cast<unsigned int>(charsPerUnit) * static_cast<unsigned int>(var.count);
    appendProtocol(var, std::move(frame), static_cast<int>(kReplyOverhead + dataLength),
                   kReplyDataStart, static_cast<int>(dataLength));
    setFrameCounters(1);
}

// A complete function-06 frame writing value to registerNumber.
QByteArray singleRegisterWriteFrame(int station, int registerNumber, unsigned int value) {
    QByteArray binary = requestHeader(station, kWriteSingleRegister, registerNumber);
    appendWord(binary, value);
    return EncodeFrame(binary);
}

// Data of a function-16 frame: registers of "4x" low byte first in value, every other
// area as 32-bit values whose more significant half goes to the lower register.
// Registers that value does not cover are sent as zeros.
void writeMultipleRegisterData(FrameWriter &out, const RW_VAR &var, int registers) {
    const auto *value = reinterpret_cast<const unsigned char *>(var.value.constData());
    const int size = var.value.size();
    int written = 0;
    if (var.area == area::kHoldingReg) {
        for (; written < registers && 2 * written + 1 < size; ++written) {
            out.byte(value[2 * written + 1]);
            out.byte(value[2 * written]);
        }
    } else {
        for (int j = 0; j < registers / 2 && 4 * j + 3 < size; ++j, written += 2) {
            for (int b = 3; b >= 0; --b) out.byte(value[4 * j + b]);
        }
    }
    for (; written < registers; ++written) out.word(0);
}

// A function-16 frame of 4 x count + 19 characters carrying every register of the request,
// encoded straight into one allocation; a count below 1 carries no data. The quantity and
// byte count fields hold the low 16 and 8 bits of their values.
QByteArray multipleRegisterWriteFrame(const RW_VAR &var) {
    const int registers = qMax(var.count, 0);
    QByteArray frame(kMultipleWriteOverhead + 4 * registers, Qt::Uninitialized);
    FrameWriter out(frame.data());
    out.byte(static_cast<unsigned int>(var.station));
    out.byte(kWriteMultipleRegisters);
    out.word(static_cast<unsigned int>(var.address));
    out.word(static_cast<unsigned int>(var.count));
    out.byte(static_cast<unsigned int>(var.count) * 2u);
    writeMultipleRegisterData(out, var, registers);
    out.finish();
    return frame;
}

}  // namespace

// ---- Codec ------------------------------------------------------------------------------

void RemoveHeadFrame() {
    QList<Protocol> &sendList = PLC_driver.sendList;
    if (sendList.isEmpty()) return;
    // Only a list no host shares may be touched in place: first() would detach a shared one.
    if (sendList.isDetached()) {
        QByteArray &frame = sendList.first().frame;
        if (frame.isDetached() && frame.capacity() <= kLargestSpareFrame) spareFrame.swap(frame);
    }
    sendList.removeFirst();
}

unsigned int ComputeLrc(const QByteArray &binary) {
    return lrcOf(reinterpret_cast<const unsigned char *>(binary.constData()), binary.size());
}

void AppendHexByte(QByteArray &text, unsigned int value) {
    char digits[2];
    putHexByte(digits, value);
    text.append(digits, 2);
}

QByteArray EncodeFrame(const QByteArray &binary) {
    return encodeFrame(reinterpret_cast<const unsigned char *>(binary.constData()), binary.size());
}

// ---- Read requests ----------------------------------------------------------------------

namespace {

// count is in bytes of bits: the coil or input quantity is count x 8.
void readBits(const RW_VAR &var, AreaTable table) {
    const unsigned char function = table == AreaTable::InputBits ? kReadDiscreteInputs : kReadCoils;
    queueRead(var, function, static_cast<unsigned int>(var.count) * 8u, 2);
}

// An unknown area name is sent with function code 1 and register-sized expectations.
void readRegisters(const RW_VAR &var, AreaTable table) {
    unsigned char function = kReadCoils;
    switch (table) {
        case AreaTable::InputRegisters:
            function = kReadInputRegisters;
            break;
        case AreaTable::HoldingRegisters:
            function = kReadHoldingRegisters;
            break;
        default:
            break;
    }
    queueRead(var, function, static_cast<unsigned int>(var.count), 4);
}

}  // namespace

void ReadRegister(RW_VAR *var) {
    const AreaKind kind = KindOfArea(var->area);
    if (kind.shape == AreaShape::Bits) {
        readBits(*var, kind.table);
    } else {
        readRegisters(*var, kind.table);
    }
}

void ReadBool(RW_VAR *var) {
    readBits(*var, KindOfArea(var->area).table);
}

void ReadAnalog(RW_VAR *var) {
    readRegisters(*var, KindOfArea(var->area).table);
}

// ---- Write requests ---------------------------------------------------------------------

void WriteRegister(RW_VAR *var) {
    if (var->area == area::kCoil) {
        WriteBool(var);
    } else if (var->area == area::kHoldingRegBit) {
        WriteBool_WordOfBit(var);
    } else {
        WriteAnalog(var);
    }
    if (PLC_driver.linkFailed) return;
    // A bit inside a register shows in the image only through its own read-modify-write.
    if (var->area == area::kHoldingRegBit) return;
    WriteDataToLocal(var);
}

// Only a first value byte of exactly 1 switches the coil on.
void WriteBool(RW_VAR *var) {
    const bool on = !var->value.isEmpty() && var->value.at(0) == 1;
    QByteArray binary = requestHeader(var->station, kWriteSingleCoil, var->address);
    appendWord(binary, on ? 0xFF00u : 0x0000u);
    appendProtocol(*var, EncodeFrame(binary), kWriteReplyLength, 0, 0);
    setFrameCounters(1);
}

// A read of the register, then a function-06 placeholder that the reply store completes.
// A broadcast cannot be read first, so a station 0 request queues nothing at all.
void WriteBool_WordOfBit(RW_VAR *var) {
    if (var->station == 0) return;
    const int registerNumber = var->address / 16;

    RW_VAR readHalf = *var;
    readHalf.direction = 0;
    readHalf.address = registerNumber;
    readHalf.bitWriteMark = -1;
    QByteArray readBinary = requestHeader(var->station, kReadHoldingRegisters, registerNumber);
    appendWord(readBinary, 1);
    appendProtocol(readHalf, EncodeFrame(readBinary), kReplyOverhead + 4, kReplyDataStart, 4);

    RW_VAR writeHalf = *var;
    writeHalf.direction = 1;
    writeHalf.bitWriteMark = 0;
    // Value "0000" and LRC "00" only hold the places until the register has been read.
    QByteArray placeholder = singleRegisterWriteFrame(var->station, registerNumber, 0);
    placeholder.replace(kWriteLrcOffset, 2, "00", 2);
    appendProtocol(writeHalf, placeholder, kWriteReplyLength, 0, 0);
    setFrameCounters(2);
}

// Function 06 for exactly one register, function 16 for every other count. A request too
// long for any frame (only a host's own edit of writeList lets one in) is not framed.
void WriteAnalog(RW_VAR *var) {
    if (WriteTooLongForFrame(*var)) return;
    QByteArray frame;
    if (var->count == 1) {
        QByteArray binary = requestHeader(var->station, kWriteSingleRegister, var->address);
        const bool covered = var->value.size() >= 2;
        binary.append(covered ? var->value.at(1) : '\0');
        binary.append(covered ? var->value.at(0) : '\0');
        frame = EncodeFrame(binary);
    } else {
        frame = multipleRegisterWriteFrame(*var);
    }
    appendProtocol(*var, std::move(frame), kWriteReplyLength, 0, 0);
    setFrameCounters(1);
}

bool WriteTooLongForFrame(const RW_VAR &var) {
    return var.count > kMostRegistersInWrite && var.area != area::kCoil &&
           var.area != area::kHoldingRegBit;
}

// Completes the placeholder write frame of a bit-in-register write: the value and LRC
// characters are taken from the complete frame for the write frame's station and register.
void PatchBitWriteFrame(Protocol &writeFrame, unsigned int registerValue) {
    QByteArray &frame = writeFrame.frame;
    if (frame.size() < kSingleWriteFrameLength) return;
    const QByteArray complete = singleRegisterWriteFrame(
        writeFrame.var.station, writeFrame.var.address / 16, registerValue);
    frame.replace(kWriteValueOffset, kWriteLrcOffset + 2 - kWriteValueOffset,
                  complete.constData() + kWriteValueOffset,
                  kWriteLrcOffset + 2 - kWriteValueOffset);
}
