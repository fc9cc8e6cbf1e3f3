// SPDX-License-Identifier: MIT
// Cyclic read list optimisation and one-shot reads.
#include <QHash>
#include <algorithm>
#include <vector>

#include "driver_internal.h"
#include "modbus_ascii_master_api.h"

namespace {

constexpr int kOnceReadListLimit = 1024;
constexpr int kBitsPerByte = 8;
constexpr int kBitsPerRegister = 16;
// Group keys are station + family × 255, not × 256, so station 255 coils and station 0 inputs
// share a key and are merged as one group; kept so that a variable set gives the read list it
// always gave.
constexpr int kGroupKeyFactor = 255;

// An area's family is its Modbus table, read by its own function code: 0 coils, 1 inputs,
// 2 input registers, 3 holding registers. It indexes the single-station lists and is the
// kind in the group key.
constexpr int kFamilyCount = 4;
constexpr int kUnknownFamily = static_cast<int>(AreaTable::None);

int familyOf(const QString &name) {
    return static_cast<int>(KindOfArea(name).table);
}

bool isBitFamily(int family) {
    return family == static_cast<int>(AreaTable::Coils) ||
           family == static_cast<int>(AreaTable::InputBits);
}

bool isRegisterBitArea(const QString &name) {
    return KindOfArea(name).shape == AreaShape::RegisterBits;
}

// Rounds up for either sign; C++ division truncates toward zero.
qint64 ceilDiv(qint64 numerator, qint64 denominator) {
    const qint64 quotient = numerator / denominator;
    return numerator % denominator > 0 ? quotient + 1 : quotient;
}

// Start of the byte that holds bit `address`, so that (address mod 8) + count spans it.
qint64 byteStartOf(qint64 address) {
    return address - address % kBitsPerByte;
}

// The settings that one rebuild reads from ComInfo.
struct ReadListSettings {
    qint64 maxWords;
    int defaultStation;
    bool groupStations;
    int requestParamA;
    int requestParamB;
};

// One variable reduced to what its requests cover: in bits for coils and inputs, else in
// registers, cut at pieceSize.
struct Span {
    qint64 start;
    qint64 count;
    qint64 pieceSize;
};

// A variable covers at most a whole table (65536 coils or registers), and a bit span that
// ends on its top boundary one register more. A longer length would only repeat the 16-bit
// addresses on the wire; it is cut there, so that the list never grows with the host's length.
constexpr qint64 kMostElementsOfVariable = 65536 + 1;

Span reduceVariable(const Keyboard &var, int family, const ReadListSettings &settings) {
    const qint64 length = qMin<qint64>(var.length, kMostElementsOfVariable);
    if (isBitFamily(family)) return {var.address, length, settings.maxWords * kBitsPerByte};
    if (!isRegisterBitArea(var.area)) return {var.address, length, settings.maxWords};
    const qint64 span = var.address % kBitsPerRegister + static_cast<qint64>(var.length);
    // A span that ends on a register boundary reads one register more.
    const qint64 registers = span == 0 ? 0 : span / kBitsPerRegister + 1;
    return {var.address / kBitsPerRegister, qMin(registers, kMostElementsOfVariable),
            settings.maxWords};
}

RW_VAR makeReadRequest(const Keyboard &var, int station, const ReadListSettings &settings) {
    RW_VAR request;
    request.ownerType = 0;
    request.ownerId = -1;
    request.direction = 0;
    request.hostParamA = settings.requestParamA;
    request.hostParamB = settings.requestParamB;
    request.hostParamC = 0;
    request.hostParamD = 0;
    request.area = var.area;
    request.auxName = var.auxName;
    request.station = station;
    request.bitWriteMark = 0;
    request.extraB = 0;
    return request;
}

// Appends the pieces of one variable; a count that fits one piece (also 0) gives one request.
void appendPieces(std::vector<RW_VAR> &out, const RW_VAR &request, const Span &span) {
    if (span.count <= span.pieceSize) {
        RW_VAR piece = request;
        piece.address = static_cast<int>(span.start);
        piece.count = static_cast<int>(span.count);
        out.push_back(piece);
        return;
    }
    const qint64 pieces = ceilDiv(span.count, span.pieceSize);
    const qint64 rest = span.count % span.pieceSize;
    for (qint64 i = 0; i < pieces; ++i) {
        RW_VAR piece = request;
        piece.address = static_cast<int>(span.start + i * span.pieceSize);
        piece.count = static_cast<int>(i == pieces - 1 && rest != 0 ? rest : span.pieceSize);
        out.push_back(piece);
    }
}

// Ascending address; equal addresses keep their order, which decides whose auxName a merged
// request carries.
void sortByAddress(std::vector<RW_VAR> &requests) {
    std::stable_sort(requests.begin(), requests.end(),
                     [](const RW_VAR &a, const RW_VAR &b) { return a.address < b.address; });
}

// Merges sorted register requests: a request is widened over any gap as long as the whole
// stays within maxWords; one that lies inside the current request is dropped.
void mergeWords(const std::vector<RW_VAR> &sorted, qint64 maxWords, QList<RW_VAR> &out) {
    if (sorted.empty()) return;
    out.append(sorted.front());
    qint64 currentStart = sorted.front().address;
    qint64 currentLength = sorted.front().count;
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        const RW_VAR &next = sorted[i];
        const qint64 end = currentStart + currentLength;
        const qint64 newEnd = static_cast<qint64>(next.address) + next.count;
        if (next.address < end && end >= newEnd) continue;
        const qint64 span = newEnd - currentStart;
        if (span <= maxWords) {
            out.last().count = static_cast<int>(span);
            currentLength = span;
        } else {
            out.append(next);
            currentStart = next.address;
            currentLength = next.count;
        }
    }
}

// A coil or input request turned into whole bytes: address in bits on a byte start,
// count in bytes.
RW_VAR toByteRequest(const RW_VAR &bits) {
    RW_VAR bytes = bits;
    const qint64 start = byteStartOf(bits.address);
    bytes.address = static_cast<int>(start);
    bytes.count = static_cast<int>(ceilDiv(bits.address - start + bits.count, kBitsPerByte));
    return bytes;
}

// Merges sorted coil or input requests (address and count in bits) into byte requests.
void mergeBits(const std::vector<RW_VAR> &sorted, qint64 maxBits, QList<RW_VAR> &out) {
    if (sorted.empty()) return;
    out.append(toByteRequest(sorted.front()));
    qint64 currentStart = out.last().address;  // bits
    qint64 currentLength = out.last().count;   // bytes
    for (std::size_t i = 1; i < sorted.size(); ++i) {
        const RW_VAR &next = sorted[i];
        // Start in bits plus length in bytes, kept as designed: this end lets a later
        // variable shrink the request.
        const qint64 end = currentStart + currentLength;
        const qint64 newEnd = static_cast<qint64>(next.address) + next.count;
        if (next.address < end && end >= newEnd) continue;
        const qint64 span = newEnd - currentStart;
        if (span <= maxBits) {
            currentLength = ceilDiv(span, kBitsPerByte);
            out.last().count = static_cast<int>(currentLength);
        } else {
            out.append(toByteRequest(next));
            currentStart = out.last().address;
            currentLength = out.last().count;
        }
    }
}

void mergeFamily(std::vector<RW_VAR> &requests, bool bitwise, const ReadListSettings &settings,
                 QList<RW_VAR> &out) {
    sortByAddress(requests);
    if (bitwise) {
        mergeBits(requests, settings.maxWords * kBitsPerByte, out);
    } else {
        mergeWords(requests, settings.maxWords, out);
    }
}

// One station: every variable goes to the list of its area family, then coils, inputs,
// input registers and holding registers are merged in that order.
void buildSingleStation(const QList<Keyboard> &vars, const ReadListSettings &settings,
                        QList<RW_VAR> &out) {
    std::vector<RW_VAR> families[kFamilyCount];
    for (const Keyboard &var : vars) {
        const int family = familyOf(var.area);
        if (family == kUnknownFamily) continue;
        const RW_VAR request = makeReadRequest(var, settings.defaultStation, settings);
        appendPieces(families[family], request, reduceVariable(var, family, settings));
    }
    for (int family = 0; family < kFamilyCount; ++family) {
        mergeFamily(families[family], isBitFamily(family), settings, out);
    }
}

// The requests of one group key, in order of insertion, and whether they are merged bitwise.
struct StationGroup {
    bool bitwise;
    std::vector<RW_VAR> requests;
};

// Several stations: variables are grouped by station and family, groups in order of their
// first variable, and each group is merged by itself.
void buildStationGroups(const QList<Keyboard> &vars, const ReadListSettings &settings,
                        QList<RW_VAR> &out) {
    std::vector<StationGroup> groups;
    QHash<int, int> groupIndexByKey;
    for (const Keyboard &var : vars) {
        const int family = familyOf(var.area);
        if (family == kUnknownFamily) continue;
        const int key = var.station + family * kGroupKeyFactor;
        auto found = groupIndexByKey.constFind(key);
        if (found == groupIndexByKey.constEnd()) {
            found = groupIndexByKey.insert(key, static_cast<int>(groups.size()));
            groups.push_back({isBitFamily(family), {}});
        }
        const Span span = reduceVariable(var, family, settings);
        if (span.count <= 0) continue;
        const RW_VAR request = makeReadRequest(var, var.station, settings);
        appendPieces(groups[found.value()].requests, request, span);
    }
    for (StationGroup &group : groups) {
        // Within a group the newest request comes first before the sort.
        std::reverse(group.requests.begin(), group.requests.end());
        mergeFamily(group.requests, group.bitwise, settings, out);
    }
}

// One-shot read of a variable normalised to whole bytes (coils, inputs; address in bits)
// or whole registers.
struct OnceReadShape {
    bool bitRequest;
    int start;
    int count;
};

OnceReadShape normaliseOnceRead(const RW_VAR &var) {
    if (var.area == area::kCoil || var.area == area::kInputBit) {
        const int start = static_cast<int>(byteStartOf(var.address));
        const qint64 span = var.address % kBitsPerByte + static_cast<qint64>(var.count);
        // One byte more when the span ends on a byte boundary, unlike the cyclic list.
        return {true, start, static_cast<int>(span / kBitsPerByte + 1)};
    }
    if (isRegisterBitArea(var.area)) {
        const qint64 span = var.address % kBitsPerRegister + static_cast<qint64>(var.count);
        return {false, var.address / kBitsPerRegister,
                static_cast<int>(span / kBitsPerRegister + 1)};
    }
    return {false, var.address, var.count};
}

bool isQueuedOnce(const QList<RW_VAR> &list, const RW_VAR &piece) {
    for (const RW_VAR &queued : list) {
        if (queued.ownerType == piece.ownerType && queued.ownerId == piece.ownerId &&
            queued.station == piece.station && queued.address == piece.address &&
            queued.count == piece.count && queued.area == piece.area) {
            return true;
        }
    }
    return false;
}

// Writes piece `index` of a one-shot read into the record: address in bits for a bit
// request, else in registers; every piece holds maxWords except a shorter last one.
void selectOncePiece(RW_VAR &var, const OnceReadShape &shape, qint64 maxWords, qint64 index) {
    const qint64 pieces = ceilDiv(shape.count, maxWords);
    const qint64 rest = shape.count % maxWords;
    const qint64 stride = shape.bitRequest ? maxWords * kBitsPerByte : maxWords;
    var.address = static_cast<int>(shape.start + index * stride);
    var.count = static_cast<int>(index == pieces - 1 && rest != 0 ? rest : maxWords);
}

// Queues the pieces of a normalised one-shot read; listMutex held. The record is left
// holding the last piece.
void queueOncePieces(RW_VAR &var, const OnceReadShape &shape, qint64 maxWords,
                     QList<RW_VAR> &list) {
    if (shape.count <= 0) return;
    const qint64 pieces = ceilDiv(shape.count, maxWords);
    // Once the list is full every further piece would be dropped: stop scanning.
    for (qint64 i = 0; i < pieces && list.size() < kOnceReadListLimit; ++i) {
        selectOncePiece(var, shape, maxWords, i);
        if (!isQueuedOnce(list, var)) list.append(var);
    }
    selectOncePiece(var, shape, maxWords, pieces - 1);
}

}  // namespace

int ReCreatReadVarList(QList<Keyboard> *vars) {
    Modbus_ASCII_Master &d = PLC_driver;
    DriverLock lock(d.listMutex);
    d.readList.clear();
    if (vars == nullptr || vars->isEmpty() || d.comInfo == nullptr) return 0;

    ComInfo &info = *d.comInfo;
    d.readCursor = 0;
    info.cycleDone = 0;
    const ReadListSettings settings = {info.maxFrameWords, info.defaultStation,
                                       info.multiStation != 0, info.requestParamA,
                                       info.requestParamB};
    // Without room for one register in a frame there is nothing to read.
    if (settings.maxWords < 1) return 0;

    if (settings.groupStations) {
        buildStationGroups(*vars, settings, d.readList);
    } else {
        buildSingleStation(*vars, settings, d.readList);
    }
    return d.readList.size();
}

int AddListOnceReadVar(RW_VAR *var) {
    if (var == nullptr || var->address < 0) return 0;
    Modbus_ASCII_Master &d = PLC_driver;
    if (d.comInfo == nullptr) {
        DriverLock lock(d.listMutex);
        return d.onceReadList.size();
    }

    const ComInfo &info = *d.comInfo;
    var->bitWriteMark = 0;
    var->extraB = 0;
    if (info.multiStation == 0) var->station = info.defaultStation;
    const OnceReadShape shape = normaliseOnceRead(*var);
    var->address = shape.start;
    var->count = shape.count;

    DriverLock lock(d.listMutex);
    if (info.maxFrameWords >= 1) queueOncePieces(*var, shape, info.maxFrameWords, d.onceReadList);
    return d.onceReadList.size();
}
