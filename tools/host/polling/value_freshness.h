// SPDX-License-Identifier: MIT
// Which of the driver's cached values the host can vouch for. The cache holds zeros before
// the first read, the old value after a read was abandoned, a written value from the moment
// its write frame is built (unless the link had failed just before: then the cache keeps the
// old value), and, in single-station mode, the reply's LRC and line end in the one or two
// bytes of coils or inputs after a bit reply. Tables show only values that the slave itself
// gave: a read it answered, or an acknowledged write whose value is in the cache.
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
    // multiStation: the driver keeps a cache per station, which stores exactly the data
    // bytes of a bit reply.
    explicit ValueFreshness(bool multiStation = false) : multiStation_(multiStation) {}

    // Notes a frame that ComCommunication handed out, before it is sent: a write frame's
    // values are unconfirmed from now until the slave acknowledges them.
    void handedOut(const QByteArray &frame, const RW_VAR &request);
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

    void noteRead(const RequestHead &head, bool accepted);
    void mark(const RequestHead &head, bool confirmed);
    void markEveryStation(const RequestHead &head, bool confirmed);

    bool multiStation_;
    // The driver's link-failed flag, followed from DataCom's results: set when a request is
    // abandoned, cleared by an accepted reply. A write frame built while it is set leaves
    // the cache alone.
    bool linkFailed_ = false;
    // Whether the write frame in flight put its values into the cache when it was built.
    bool writeValuesCached_ = false;
    std::map<Table, std::vector<bool>> confirmed_;
};

#endif  // MODBUS_ASCII_HOST_VALUE_FRESHNESS_H
