// SPDX-License-Identifier: MIT
// Which of the driver's cached values the host can vouch for. The cache holds zeros before
// the first read, the old value after a read was abandoned, a written value from the moment
// its write frame is built (unless the link had failed just before: then the cache keeps the
// old value), and, in single-station mode, the reply's LRC and line end in the one or two
// bytes of coils or inputs after a bit reply. Tables show only values that the slave itself
// gave: a read it answered, or an acknowledged write whose value is in the cache. A polled
// value is shown only while it is young enough: a value that no pass has read again for longer
// than a pass may take belongs to a request that lost its turn.
#ifndef MODBUS_ASCII_HOST_VALUE_FRESHNESS_H
#define MODBUS_ASCII_HOST_VALUE_FRESHNESS_H

#include <QByteArray>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "line_layer.h"
#include "modbus_ascii_master.h"
#include "variables.h"

// The longest a pass of the read list may take when every request uses all its attempts,
// each waiting out the reply time-out and the quiet gap, twice over (a value read early in one
// pass is read again late in the next), and never less than a second: a polled value older
// than this was not read in its pass.
qint64 PassAgeBoundMs(int readRequests, int attempts, int replyTimeoutMs, int quietMs);

class ValueFreshness {
public:
    using Clock = std::function<qint64()>;  // milliseconds, never going back
    static constexpr qint64 kNoBound = std::numeric_limits<qint64>::max();

    // multiStation: the driver keeps a cache per station, which stores exactly the data
    // bytes of a bit reply. clock: when values are confirmed and how old they are (by default
    // the system's monotonic clock).
    explicit ValueFreshness(bool multiStation = false, Clock clock = {});

    // Notes a frame that ComCommunication handed out, before it is sent: a write frame's
    // values are unconfirmed from now until the slave acknowledges them.
    void handedOut(const QByteArray &frame, const RW_VAR &request);
    // Notes a finished transaction: the frame that was sent, the request it belongs to and
    // what DataCom returned for it.
    void note(const QByteArray &frame, const RW_VAR &request, int result);
    // How long ago the oldest answer that the variable's values came from arrived; nothing
    // while any of them is not confirmed.
    std::optional<qint64> ageMs(const Variable &variable) const;
    // True when every coil, input or register of the variable is confirmed and, for a polled
    // variable, no older than the bound. A one-shot read is read once: it has no pass to miss.
    bool confirmed(const Variable &variable, bool polled = false) const;
    // The age past which a polled value is no longer shown (kNoBound: none).
    void setMaxAgeMs(qint64 maxAgeMs) { maxAgeMs_ = maxAgeMs; }
    qint64 maxAgeMs() const { return maxAgeMs_; }
    // Nothing is confirmed any more (the port went away).
    void forgetAll() { confirmedAt_.clear(); }
    // Nothing of station is confirmed any more (it was set aside).
    void forgetStation(int station);

private:
    // A station and one of the four Modbus tables, numbered by the read function (1 to 4).
    using Table = std::pair<int, int>;

    void noteRead(const RequestHead &head, bool accepted);
    void mark(const RequestHead &head, bool confirmed);
    void markEveryStation(const RequestHead &head, bool confirmed);

    static constexpr qint64 kUnconfirmed = -1;

    bool multiStation_;
    Clock clock_;
    qint64 maxAgeMs_ = kNoBound;
    // The driver's link-failed flag, followed from DataCom's results: set when a request is
    // abandoned, cleared by an accepted reply. A write frame built while it is set leaves
    // the cache alone.
    bool linkFailed_ = false;
    // Whether the write frame in flight put its values into the cache when it was built.
    bool writeValuesCached_ = false;
    // When each address's value was confirmed (ms of the clock), or kUnconfirmed; grown up to
    // the highest address marked.
    std::map<Table, std::vector<qint64>> confirmedAt_;
};

#endif  // MODBUS_ASCII_HOST_VALUE_FRESHNESS_H
