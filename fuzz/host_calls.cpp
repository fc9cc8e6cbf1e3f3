// SPDX-License-Identifier: MIT
// The host calls of a poll session: read-list rebuilds, one-shot reads, writes and reads of
// values, with arguments from the fuzz input and the checks of what each call leaves behind.
#include <QList>
#include <QString>
#include <algorithm>
#include <cstdlib>

#include "frame_check.h"
#include "image_edges.h"
#include "modbus_ascii_master_api.h"
#include "poll_session.h"
#include "station_edits.h"

namespace fuzz {
namespace {

constexpr int kListLimit = 1024;
// The most pieces one polled variable may become: one per element of a whole table, and
// one more register for a bit span that ends on the table's top boundary.
constexpr long long kMostPiecesPerVariable = 65536 + 1;
// Host counts are kept to sizes a run can loop over quickly: a bit write loops once per
// bit and a register write once per frame, by design, whatever the count.
constexpr int kMostBitWrites = 3000;
constexpr int kMostRegisterWrites = 2048;
constexpr int kMostRegisters = 70000;
// The most registers the driver puts into one write frame (a frame of 256 MiB).
constexpr int kMostFramedRegisters = 67108859;
constexpr int kMostStationReads = 4096;

RW_VAR requestFrom(InputReader &in) {
    RW_VAR var;
    var.ownerType = in.byte() % 14 - 1;
    var.ownerId = in.byte() % 4;
    var.area = in.areaName();
    var.address = in.edgyInt(70000);
    var.station = in.flag() ? in.byte() % 4 : in.edgyInt(300);
    var.count = in.edgyInt(300);
    var.bitWriteMark = in.byte() % 3 - 1;
    var.direction = in.byte() % 3;
    var.value = in.bytes(24);
    return var;
}

Keyboard polledVariableFrom(InputReader &in) {
    Keyboard var;
    var.station = in.byte() % 4 == 0 ? in.byte() : in.byte() % 3;
    var.area = in.areaName();
    var.address = in.edgyInt(70000);
    var.length = in.edgyInt(300);
    var.auxName = in.unicodeText(3);
    return var;
}

// A count for SetRegisterData that keeps the number of requests it loops over bounded.
int hostWriteCount(InputReader &in, const QString &area, int maxFrameWords) {
    int count = in.edgyInt(300);
    if (area == QLatin1String("0x") || area == QLatin1String("4x_bit")) {
        return std::abs(count % kMostBitWrites);
    }
    const long long most = std::min<long long>(
        kMostRegisters, kMostRegisterWrites * std::max<long long>(maxFrameWords, 1));
    return count > most ? static_cast<int>(count % most) : count;
}

void checkReadList(const QList<Keyboard> &vars, int returned, const ComInfo &info) {
    const Modbus_ASCII_Master &d = PLC_driver;
    if (returned != d.readList.size()) Fail("ReCreatReadVarList returned another length");
    if (info.maxFrameWords < 1 && !d.readList.isEmpty()) Fail("a read list without frame room");
    if (d.readList.size() > vars.size() * kMostPiecesPerVariable) {
        Fail("a read list grew past one piece per element of a table");
    }
    // Station 255 of one table shares its group key with station 0 of the next, by design,
    // and a shared group merges the two tables' requests with one rule: the frame limits
    // below hold only without such a pair.
    bool sharedGroups = false;
    for (const Keyboard &var : vars) sharedGroups |= info.multiStation != 0 && var.station == 255;
    for (const RW_VAR &request : d.readList) {
        const int table = TableOfArea(request.area);
        if (table < 0) Fail("a read list request for an unknown area");
        if (request.ownerType != 0 || request.ownerId != -1 || request.direction != 0) {
            Fail("a read list request with wrong tags");
        }
        if (info.multiStation == 0 && request.station != info.defaultStation) {
            Fail("a single-station read list request for another station");
        }
        if (sharedGroups) continue;
        // Bit requests count bytes: a piece of maxFrameWords x 8 bits that does not start on
        // a byte takes one byte more.
        const long long most = IsBitArea(request.area) ? info.maxFrameWords + 1LL
                                                       : static_cast<long long>(info.maxFrameWords);
        if (request.count > most) Fail("a read list request longer than a frame may carry");
        if (IsBitArea(request.area) && request.address % 8 != 0) {
            Fail("a bit read list request does not start on a byte");
        }
    }
}

void checkOnceReads(const RW_VAR &var, int returned, const ComInfo &info) {
    const Modbus_ASCII_Master &d = PLC_driver;
    if (d.onceReadList.size() > kListLimit) Fail("the one-shot list grew past 1024");
    if (returned != (var.address < 0 ? 0 : d.onceReadList.size())) {
        Fail("AddListOnceReadVar returned another length");
    }
    for (const RW_VAR &request : d.onceReadList) {
        if (request.count < 1 || request.count > info.maxFrameWords) {
            Fail("a one-shot piece is empty or longer than a frame may carry");
        }
    }
}

}  // namespace

void PollSession::RebuildReadList() {
    QList<Keyboard> vars;
    const int count = in_.byte() % 10;
    for (int i = 0; i < count; ++i) vars.append(polledVariableFrom(in_));
    const bool none = in_.byte() % 16 == 0;
    const ImageEdges before;
    const int returned = ReCreatReadVarList(none ? nullptr : &vars);
    before.CheckOnlyTouched(-1);
    checkReadList(vars, returned, info_);
}

void PollSession::QueueOnceRead() {
    RW_VAR var = requestFrom(in_);
    const RW_VAR original = var;
    const bool none = in_.byte() % 16 == 0;
    const ImageEdges before;
    const int returned = AddListOnceReadVar(none ? nullptr : &var);
    before.CheckOnlyTouched(-1);
    if (none) {
        if (returned != 0) Fail("AddListOnceReadVar(nullptr) queued something");
        return;
    }
    checkOnceReads(original, returned, info_);
}

void PollSession::QueueHostWrite() {
    const QString area = in_.areaName();
    const int address = in_.edgyInt(70000);
    const unsigned int station =
        in_.flag() ? in_.byte() % 4 : static_cast<unsigned>(in_.signedInt());
    const int count = hostWriteCount(in_, area, info_.maxFrameWords);
    const QByteArray value = in_.bytes(64);
    const ImageEdges before;
    const StationRecordsWatch records;
    SetRegisterData(area, address, station, value, count);
    before.CheckOnlyTouched(TableOfArea(area));
    records.Check();
    CheckLimits();
}

void PollSession::QueueListWrite() {
    RW_VAR var = requestFrom(in_);
    // A register write's frame grows with its count: counts the driver frames are kept to
    // sizes a run can check quickly; longer ones are refused by the driver, without a frame.
    if (var.count > kMostRegisters && var.count <= kMostFramedRegisters) {
        var.count %= kMostRegisters;
    }
    const int before = PLC_driver.writeList.size();
    const int returned = AddListWriteVar(in_.byte() % 16 == 0 ? nullptr : &var);
    if (returned != PLC_driver.writeList.size()) Fail("AddListWriteVar returned another length");
    if (returned < before) Fail("AddListWriteVar shortened the write list");
    CheckLimits();
}

void PollSession::ReadHostValues() {
    const QString area = in_.areaName();
    const int address = in_.edgyInt(70000);
    const int station = in_.byte() % 4;
    // A per-station read creates a record per element it reads: kept short for speed.
    const int count =
        in_.edgyInt(300) % (info_.multiStation != 0 ? kMostStationReads : kMostRegisters);
    QByteArray out = in_.bytes(8);
    const int sizeBefore = out.size();
    const ImageEdges before;
    const StationRecordsWatch records;
    GetRegisterData(area, address, station, out, count);
    before.CheckOnlyTouched(-1);
    records.Check();
    // Two bytes per element is the most any area gives (a 32-bit value counts two registers).
    if (out.size() > sizeBefore && out.size() > 2LL * count)
        Fail("a host read grew past its count");
}

void PollSession::AnyHostCall() {
    switch (in_.byte() % 6) {
        case 0:
            RebuildReadList();
            break;
        case 1:
            QueueOnceRead();
            break;
        case 2:
            QueueHostWrite();
            break;
        case 3:
            QueueListWrite();
            break;
        case 4:
            EditStationRecords(in_);
            break;
        default:
            ReadHostValues();
            break;
    }
}

void PollSession::CheckLimits() const {
    const Modbus_ASCII_Master &d = PLC_driver;
    if (d.writeList.size() > kListLimit) Fail("the write list grew past 1024");
    if (d.onceReadList.size() > kListLimit) Fail("the one-shot list grew past 1024");
    if (d.sendList.size() > 2) Fail("more than two frames queued for one request");
}

}  // namespace fuzz
