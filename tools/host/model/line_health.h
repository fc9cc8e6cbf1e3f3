// SPDX-License-Identifier: MIT
// Line health per station: what each transaction with a station came to, judged from the line
// layer's frame kinds and the driver's result codes, and how quickly the station answered.
#ifndef MODBUS_ASCII_HOST_LINE_HEALTH_H
#define MODBUS_ASCII_HOST_LINE_HEALTH_H

#include <QByteArray>
#include <QJsonArray>
#include <QMap>
#include <QStringList>
#include <array>
#include <vector>

#include "serial_link.h"

// What one transaction came to.
enum class Outcome : int {
    Accepted = 0,
    NoReply = 1,      // nothing that could be judged as an answer came in time
    BadContent = 2,   // a reply with bad framing or a wrong LRC, or one the driver rejected
    WrongLength = 3,  // right station and function, but a size the request does not allow
    Exception = 4,    // the exception form of the request
    BadEcho = 5,      // the adapter's echo differed from the request: a collision or a fault
};
constexpr int kOutcomeCount = 6;

// The outcome's name in JSON and the log: "accepted", "noReply", "badContent", ...
const char *OutcomeName(Outcome outcome);

// Judges one transaction: result is what DataCom returned for its reply.
Outcome ClassifyTransaction(int result, const Exchange &exchange);

// Station and function code of a request frame, from its first two bytes; -1 when the
// frame is too short or not hex.
int StationOfFrame(const QByteArray &frame);
int FunctionOfFrame(const QByteArray &frame);

// Response times in milliseconds; all 0 without samples.
struct ResponseFigures {
    qint64 samples = 0;
    double minMs = 0;
    double medianMs = 0;
    double p95Ms = 0;
    double maxMs = 0;
};

// Nearest-rank figures of the samples (nanoseconds): the median is the value at rank
// ceil(n / 2), the 95th percentile the one at rank ceil(0.95 n).
ResponseFigures FiguresOfResponses(std::vector<qint64> nanoseconds);

// Response times of one station in bounded memory: the count, minimum and maximum of the
// whole run, and the most recent kKept samples, from which the median and the 95th
// percentile are taken.
class ResponseSamples {
public:
    static constexpr std::size_t kKept = 1024;

    void add(qint64 nanoseconds);
    // The figures of the kept samples, with the count, minimum and maximum of all of them.
    ResponseFigures figures() const;
    const std::vector<qint64> &kept() const { return kept_; }

private:
    std::vector<qint64> kept_;  // a ring once it holds kKept samples
    std::size_t next_ = 0;      // where the next sample goes once the ring is full
    qint64 count_ = 0;
    qint64 min_ = 0;
    qint64 max_ = 0;
};

// Counters are 64-bit, so that a run of months at full speed cannot overflow them.
struct StationHealth {
    qint64 transactions = 0;
    std::array<qint64, kOutcomeCount> outcomes{};
    qint64 strayFrames = 0;  // frames set aside while a request to this station was in flight
    // End of sending to end of reply, of every transaction that brought a reply (an answer
    // or an exception); time-outs are not response times.
    ResponseSamples responses;
    QString standing;  // empty while it was never set aside; else "answering", "probing", ...

    qint64 count(Outcome outcome) const { return outcomes[static_cast<int>(outcome)]; }
    qint64 failures() const { return transactions - count(Outcome::Accepted); }
};

class LineHealth {
public:
    // Notes where a station stands after it was set aside or brought back.
    void setStanding(int station, const QString &standing) {
        stations_[station].standing = standing;
    }
    // Counts one transaction with the station that frame was sent to.
    void record(const QByteArray &frame, int result, const Exchange &exchange);
    const QMap<int, StationHealth> &stations() const { return stations_; }

private:
    QMap<int, StationHealth> stations_;
};

// One object per station: station, transactions, accepted, failures by kind (strayFrames
// among them) and responseMs (samples, min, median, p95, max).
QJsonArray HealthJson(const LineHealth &health);
// The summary's table, a header and one line per station.
QStringList HealthTable(const LineHealth &health);
// One short line for a station, as the live view shows it.
QString HealthLine(int station, const StationHealth &health);

#endif  // MODBUS_ASCII_HOST_LINE_HEALTH_H
