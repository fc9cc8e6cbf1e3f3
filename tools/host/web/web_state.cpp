// SPDX-License-Identifier: MIT
// Response-time buckets per station and the JSON of the live page's state and updates.
#include "web_state.h"

#include <algorithm>

namespace {

int BucketOf(qint64 nanoseconds) {
    const double ms = static_cast<double>(nanoseconds) / 1e6;
    const auto edge = std::lower_bound(kHistogramEdgesMs.begin(), kHistogramEdgesMs.end(), ms);
    return static_cast<int>(edge - kHistogramEdgesMs.begin());
}

bool SameRow(const VariableValues &a, const VariableValues &b) {
    return a.confirmed == b.confirmed && (!a.confirmed || a.values == b.values);
}

QJsonObject Stamped(QJsonObject object, const LiveSnapshot &snapshot) {
    object.insert(QStringLiteral("time"), snapshot.time);
    return object;
}

}  // namespace

void StationActivity::record(const QByteArray &frame, int result, const Exchange &exchange) {
    Station &station = stations_[StationOfFrame(frame)];
    station.lastOutcome = ClassifyTransaction(result, exchange);
    if (exchange.reply.isEmpty()) return;
    ++station.counts[BucketOf(exchange.responseNanoseconds)];
    station.sumSeconds += static_cast<double>(exchange.responseNanoseconds) / 1e9;
}

QJsonArray StationActivity::json() const {
    QJsonArray edges;
    for (double edge : kHistogramEdgesMs) edges.append(edge);
    QJsonArray stations;
    for (auto it = stations_.cbegin(); it != stations_.cend(); ++it) {
        QJsonArray counts;
        for (int count : it.value().counts) counts.append(count);
        stations.append(QJsonObject{
            {"station", it.key()},
            {"lastOutcome", QLatin1String(OutcomeName(it.value().lastOutcome))},
            {"responseHistogram",
             QJsonObject{
                 {"edgesMs", edges}, {"counts", counts}, {"sumSeconds", it.value().sumSeconds}}}});
    }
    return stations;
}

QJsonObject StateJson(const LiveSnapshot &snapshot) {
    QJsonObject state = ValuesJson(snapshot.pass, snapshot.final, snapshot.rows);
    state.insert(QStringLiteral("summary"), snapshot.summary);
    state.insert(QStringLiteral("activity"), snapshot.activity);
    return Stamped(state, snapshot);
}

QJsonObject ChangesJson(const LiveSnapshot &before, const LiveSnapshot &now) {
    QJsonArray changed;
    for (int i = 0; i < now.rows.size(); ++i) {
        if (i < before.rows.size() && SameRow(before.rows[i], now.rows[i])) continue;
        QJsonObject row = ValueRowJson(now.rows[i]);
        row.insert(QStringLiteral("index"), i);
        changed.append(row);
    }
    return Stamped(QJsonObject{{"cycle", now.pass}, {"final", now.final}, {"changed", changed}},
                   now);
}

QJsonObject HealthUpdateJson(const LiveSnapshot &snapshot) {
    return Stamped(QJsonObject{{"summary", snapshot.summary}, {"activity", snapshot.activity}},
                   snapshot);
}
