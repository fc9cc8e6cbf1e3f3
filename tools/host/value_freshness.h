// SPDX-License-Identifier: MIT
// Which of the driver's cached values the host can vouch for. The cache holds zeros before
// the first read, the old value after a read was abandoned, and a written value from the
// moment the write frame is built, acknowledged or not; tables show only values that a read
// or an acknowledged write has confirmed since.
#ifndef MODBUS_ASCII_HOST_VALUE_FRESHNESS_H
#define MODBUS_ASCII_HOST_VALUE_FRESHNESS_H

#include <QByteArray>
#include <map>
#include <utility>
#include <vector>

#include "line_layer.h"
#include "modbus_ascii_master.h"
#include "variables.h"

class ValueFreshness {
public:
    // Notes a finished transaction: the frame that was sent, the request it belongs to and
    // what DataCom returned for it.
    void note(const QByteArray &frame, const RW_VAR &request, int result);
    // True when every coil, input or register of the variable is confirmed.
    bool confirmed(const Variable &variable) const;
    // Nothing is confirmed any more (the port went away).
    void forgetAll() { confirmed_.clear(); }

private:
    // A station and one of the four Modbus tables, numbered by the read function (1 to 4).
    using Table = std::pair<int, int>;

    void mark(const RequestHead &head, bool confirmed);

    std::map<Table, std::vector<bool>> confirmed_;
};

#endif  // MODBUS_ASCII_HOST_VALUE_FRESHNESS_H
