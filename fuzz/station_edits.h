// SPDX-License-Identifier: MIT
// The host's own edits of the per-station records (`extendList`), which the driver's index
// must notice, and the check that the driver finds records as a scan of the list from the
// front finds them.
#ifndef MODBUS_FUZZ_STATION_EDITS_H
#define MODBUS_FUZZ_STATION_EDITS_H

#include <QChar>
#include <vector>

#include "fuzz_input.h"
#include "modbus_ascii_master.h"

namespace fuzz {

// One edit of PLC_driver.extendList through the host's handle, under imageMutex: records
// added at either end or copied (so that a key has two records), removed, given another
// key or other data, swapped, or the list cleared.
void EditStationRecords(InputReader &in);

// Taken before a driver call. Check() fails when the call removed a record, changed a key,
// wrote to a record that is not the first of its key, or added a record for a key that the
// list already held. An inactive watch checks nothing.
class StationRecordsWatch {
public:
    explicit StationRecordsWatch(bool active = true);
    void Check() const;

private:
    // What the check needs of a record, taken without copying its strings: the watch runs
    // around every reply, and a list may hold thousands of records. The area is known by its
    // text's address, which the driver has no reason to change.
    struct Seen {
        int station;
        int address;
        const QChar *area;
        int areaSize;
        int dataSize;
        char data[8];  // the first bytes; records hold at most 6
    };

    bool active_;
    std::vector<Seen> before_;
};

}  // namespace fuzz

#endif  // MODBUS_FUZZ_STATION_EDITS_H
