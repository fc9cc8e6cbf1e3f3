// SPDX-License-Identifier: MIT
// What the live page shows, as snapshots the poll loop publishes: the value table and the
// summary in the tool's own JSON (report.h), and per station a response-time histogram and
// what its last transaction came to.
#ifndef MODBUS_ASCII_HOST_WEB_STATE_H
#define MODBUS_ASCII_HOST_WEB_STATE_H

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <array>

#include "line_health.h"
#include "report.h"

// Upper edges of the response-time buckets in milliseconds (1-2-5 steps); one more bucket
// holds everything slower.
constexpr std::array<double, 13> kHistogramEdgesMs = {0.5, 1,   2,   5,    10,   20,  50,
                                                      100, 200, 500, 1000, 2000, 5000};

// Per station: how quickly it answered, in buckets, and what its last transaction came to.
class StationActivity {
public:
    void record(const QByteArray &frame, int result, const Exchange &exchange);
    // [{station, lastOutcome, responseHistogram: {edgesMs, counts, sumSeconds}}]
    QJsonArray json() const;

private:
    struct Station {
        std::array<int, kHistogramEdgesMs.size() + 1> counts{};
        double sumSeconds = 0;  // of the response times counted
        Outcome lastOutcome = Outcome::Accepted;
    };
    QMap<int, Station> stations_;
};

// One published state of the run. Immutable once published; shared by the server's threads.
struct LiveSnapshot {
    quint64 sequence = 0;
    qint64 pass = 0;
    bool final = false;
    double time = 0;  // seconds since the epoch
    QList<VariableValues> rows;
    QJsonObject summary;  // as the tool's JSON summary
    QJsonArray activity;  // StationActivity::json()
};

// /api/state: the value table ({cycle, final, values}) with time, summary and activity.
QJsonObject StateJson(const LiveSnapshot &snapshot);
// The rows that changed from before to now (confirmation or values), each with its index:
// {cycle, final, time, changed: [{index, ...row}]}.
QJsonObject ChangesJson(const LiveSnapshot &before, const LiveSnapshot &now);
// {summary, activity}
QJsonObject HealthUpdateJson(const LiveSnapshot &snapshot);

#endif  // MODBUS_ASCII_HOST_WEB_STATE_H
