// SPDX-License-Identifier: MIT
// /metrics: a snapshot of the run in the Prometheus text format, family by family, and the
// escaping of label values.
#include "metrics_text.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

namespace {

LiveSnapshot TwoStationSnapshot() {
    LiveSnapshot snapshot;
    const QJsonObject failures{{"noReply", 3},   {"badContent", 1}, {"wrongLength", 0},
                               {"exception", 2}, {"badEcho", 0},    {"strayFrames", 5}};
    const QJsonObject quiet{{"noReply", 0},   {"badContent", 0}, {"wrongLength", 0},
                            {"exception", 0}, {"badEcho", 0},    {"strayFrames", 0}};
    snapshot.summary = QJsonObject{
        {"transactions", 106},
        {"passes", 40},
        {"portLosses", 1},
        {"portDownMs", 2500},
        {"lateReplies", QJsonObject{{"count", 4}}},
        {"echo", QJsonObject{{"removed", 7}}},
        {"stations",
         QJsonArray{
             QJsonObject{
                 {"station", 1}, {"transactions", 100}, {"accepted", 94}, {"failures", failures}},
             QJsonObject{{"station", 9},
                         {"transactions", 6},
                         {"accepted", 6},
                         {"failures", quiet},
                         {"standing", "set aside until 12.0 s"}}}}};
    QJsonArray edges;
    for (double edge : kHistogramEdgesMs) edges.append(edge);
    QJsonArray counts;
    for (int i = 0; i <= static_cast<int>(kHistogramEdgesMs.size()); ++i) {
        counts.append(i == 1 ? 90 : i == 4 ? 6 : 0);  // up to 1 ms, and 5 to 10 ms
    }
    snapshot.activity = QJsonArray{
        QJsonObject{{"station", 1},
                    {"responseHistogram",
                     QJsonObject{{"edgesMs", edges}, {"counts", counts}, {"sumSeconds", 0.125}}}}};
    Variable pump;
    pump.name = "pump \"A\"";
    pump.station = 1;
    pump.area = "3x_bit";
    pump.addressText = "10.3";
    Variable level;
    level.name = "level";
    level.station = 9;
    level.area = "4x";
    level.addressText = "200";
    snapshot.rows = {VariableValues{pump, {1}, true, 250}, VariableValues{level, {}, false, {}}};
    return snapshot;
}

TEST(MetricsText, EveryFamilyWithItsHelpTypeAndSamples) {
    EXPECT_EQ(
        MetricsText(TwoStationSnapshot()),
        "# HELP modbus_ascii_transactions_total Transactions with a station, by what they came "
        "to.\n"
        "# TYPE modbus_ascii_transactions_total counter\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"accepted\"} 94\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"noReply\"} 3\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"badContent\"} 1\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"wrongLength\"} 0\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"exception\"} 2\n"
        "modbus_ascii_transactions_total{station=\"1\",outcome=\"badEcho\"} 0\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"accepted\"} 6\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"noReply\"} 0\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"badContent\"} 0\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"wrongLength\"} 0\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"exception\"} 0\n"
        "modbus_ascii_transactions_total{station=\"9\",outcome=\"badEcho\"} 0\n"
        "# HELP modbus_ascii_response_seconds Time from the end of a request to the end of its "
        "reply, of every transaction that brought one.\n"
        "# TYPE modbus_ascii_response_seconds histogram\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.0005\"} 0\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.001\"} 90\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.002\"} 90\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.005\"} 90\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.01\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.02\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.05\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.1\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.2\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"0.5\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"1\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"2\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"5\"} 96\n"
        "modbus_ascii_response_seconds_bucket{station=\"1\",le=\"+Inf\"} 96\n"
        "modbus_ascii_response_seconds_sum{station=\"1\"} 0.125\n"
        "modbus_ascii_response_seconds_count{station=\"1\"} 96\n"
        "# HELP modbus_ascii_passes_total Full passes of the read list.\n"
        "# TYPE modbus_ascii_passes_total counter\n"
        "modbus_ascii_passes_total 40\n"
        "# HELP modbus_ascii_port_losses_total Times the port, or the connection to a device "
        "server, went away.\n"
        "# TYPE modbus_ascii_port_losses_total counter\n"
        "modbus_ascii_port_losses_total 1\n"
        "# HELP modbus_ascii_port_down_seconds_total Time the port was away.\n"
        "# TYPE modbus_ascii_port_down_seconds_total counter\n"
        "modbus_ascii_port_down_seconds_total 2.5\n"
        "# HELP modbus_ascii_late_replies_total Replies that came after their request had timed "
        "out.\n"
        "# TYPE modbus_ascii_late_replies_total counter\n"
        "modbus_ascii_late_replies_total 4\n"
        "# HELP modbus_ascii_echoes_removed_total Echoes of the requests removed from the line.\n"
        "# TYPE modbus_ascii_echoes_removed_total counter\n"
        "modbus_ascii_echoes_removed_total 7\n"
        "# HELP modbus_ascii_stations_set_aside Stations set aside for not answering.\n"
        "# TYPE modbus_ascii_stations_set_aside gauge\n"
        "modbus_ascii_stations_set_aside 1\n"
        "# HELP modbus_ascii_value_age_seconds Age of the answer a polled value comes from (NaN "
        "while it has none).\n"
        "# TYPE modbus_ascii_value_age_seconds gauge\n"
        "modbus_ascii_value_age_seconds{station=\"1\",name=\"pump \\\"A\\\"\",area=\"3x_bit\","
        "address=\"10.3\"} 0.25\n"
        "modbus_ascii_value_age_seconds{station=\"9\",name=\"level\",area=\"4x\","
        "address=\"200\"} NaN\n");
}

TEST(EscapedLabel, EscapesBackslashQuoteAndLineFeed) {
    const struct {
        const char *value;
        const char *escaped;
    } cases[] = {
        {"pump", "pump"},
        {"a\"b", "a\\\"b"},
        {"c:\\d", "c:\\\\d"},
        {"two\nlines", "two\\nlines"},
    };
    for (const auto &row : cases) EXPECT_EQ(EscapedLabel(row.value), row.escaped) << row.value;
}

}  // namespace
