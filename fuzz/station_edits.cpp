// SPDX-License-Identifier: MIT
// The fuzz host's edits of the per-station records and the check that driver calls keep to
// the records a scan of the list from the front finds.
#include "station_edits.h"

#include <QHash>
#include <QList>
#include <QMutexLocker>
#include <QString>
#include <QStringView>
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "frame_check.h"

namespace fuzz {
namespace {

// A record's key, pointing into the list it was taken from.
struct KeyView {
    int station;
    int address;
    QStringView area;
    bool operator==(const KeyView &other) const {
        return station == other.station && address == other.address && area == other.area;
    }
};

struct KeyViewHash {
    std::size_t operator()(const KeyView &key) const noexcept {
        return qHash(key.area, qHash(key.station) ^ (qHash(key.address) << 1));
    }
};

KeyView keyOf(const EXTENDVAR &record) {
    return KeyView{record.station, record.address, QStringView(record.area)};
}

// Mostly stations, areas and addresses that the driver's own records use, so that keys meet.
EXTENDVAR recordFrom(InputReader &in) {
    EXTENDVAR record;
    record.station = in.byte() % 8 == 0 ? in.edgyInt(300) : in.byte() % 4;
    record.area = in.areaName();
    record.address = in.edgyInt(300);
    record.data = in.bytes(6);
    return record;
}

void changeKey(InputReader &in, EXTENDVAR &record, const EXTENDVAR &other) {
    switch (in.byte() % 4) {
        case 0:
            record.station = other.station;
            record.area = other.area;
            record.address = other.address;
            break;
        case 1:
            record.station = in.byte() % 4;
            break;
        case 2:
            record.area = in.areaName();
            break;
        default:
            record.address = in.edgyInt(300);
            break;
    }
}

}  // namespace

void EditStationRecords(InputReader &in) {
    Modbus_ASCII_Master &d = PLC_driver;
    QMutexLocker lock(&d.imageMutex);
    QList<EXTENDVAR> &list = d.extendList;
    const uint8_t edit = in.byte() % 9;
    if (edit == 0 || list.isEmpty()) {
        list.append(recordFrom(in));
        return;
    }
    const int at = in.word() % list.size();
    const int other = in.word() % list.size();
    const EXTENDVAR copy = list.at(other);
    switch (edit) {
        case 1:
            list.prepend(recordFrom(in));
            break;
        case 2:
            list.prepend(copy);  // now the first record of its key
            break;
        case 3:
            list.insert(at, copy);
            break;
        case 4:
            list.removeAt(at);
            break;
        case 5:
            changeKey(in, list[at], copy);
            break;
        case 6:
            list[at].data = in.bytes(6);
            break;
        case 7:
            list.swapItemsAt(at, other);
            break;
        default:
            if (in.byte() % 4 == 0) list.clear();
            break;
    }
}

StationRecordsWatch::StationRecordsWatch(bool active) : active_(active) {
    if (!active_) return;
    const QList<EXTENDVAR> &list = PLC_driver.extendList;
    before_.reserve(list.size());
    for (const EXTENDVAR &record : list) {
        Seen seen{record.station,
                  record.address,
                  record.area.constData(),
                  static_cast<int>(record.area.size()),
                  static_cast<int>(record.data.size()),
                  {}};
        std::memcpy(seen.data, record.data.constData(),
                    std::min<std::size_t>(record.data.size(), sizeof seen.data));
        before_.push_back(seen);
    }
}

void StationRecordsWatch::Check() const {
    if (!active_) return;
    const QList<EXTENDVAR> &list = PLC_driver.extendList;
    const int kept = static_cast<int>(before_.size());
    if (list.size() < kept) Fail("a driver call removed per-station records");
    std::vector<int> written;
    for (int i = 0; i < kept; ++i) {
        const Seen &seen = before_[i];
        const EXTENDVAR &now = list.at(i);
        if (now.station != seen.station || now.address != seen.address ||
            now.area.constData() != seen.area || now.area.size() != seen.areaSize) {
            Fail("a driver call changed a record's key");
        }
        const bool sameData =
            now.data.size() == seen.dataSize &&
            std::memcmp(now.data.constData(), seen.data,
                        std::min<std::size_t>(seen.dataSize, sizeof seen.data)) == 0;
        if (!sameData) written.push_back(i);
    }
    if (written.empty() && list.size() == kept) return;
    // The first position of every key, as a scan from the front finds it.
    std::unordered_map<KeyView, int, KeyViewHash> firstOf;
    for (int i = 0; i < kept; ++i) firstOf.emplace(keyOf(list.at(i)), i);
    for (int i : written) {
        if (firstOf.at(keyOf(list.at(i))) != i) {
            Fail("a driver call wrote to a record that a scan from the front does not find");
        }
    }
    for (int i = kept; i < list.size(); ++i) {
        if (!firstOf.emplace(keyOf(list.at(i)), i).second) {
            Fail("a driver call added a record for a key that the list already held");
        }
    }
}

}  // namespace fuzz
