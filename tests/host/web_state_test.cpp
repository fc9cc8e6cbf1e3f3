// SPDX-License-Identifier: MIT
// The live page's state: response-time buckets per station and the changes sent to clients.
#include "web_state.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

namespace {

Exchange Reply(double milliseconds) {
    Exchange exchange;
    exchange.reply = ":010302000AF0\r\n";
    exchange.responseNanoseconds = static_cast<qint64>(milliseconds * 1e6);
    return exchange;
}

std::string Compact(const QJsonValue &value) {
    return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact).toStdString();
}

TEST(StationActivity, CountsResponseTimesInOneTwoFiveBuckets) {
    StationActivity activity;
    for (double ms : {0.3, 0.5, 0.7, 4.0, 5.0, 5.1, 999.0, 7000.0}) {
        activity.record(":010300000001FB\r\n", 1, Reply(ms));
    }
    activity.record(":010300000001FB\r\n", 0, Exchange());  // a time-out: no response time
    const QJsonObject station = activity.json().first().toObject();
    EXPECT_EQ(station.value("station").toInt(), 1);
    EXPECT_EQ(station.value("lastOutcome").toString(), "noReply");
    EXPECT_EQ(Compact(station.value("responseHistogram")),
              "{\"counts\":[2,1,0,2,1,0,0,0,0,0,1,0,0,1],"
              "\"edgesMs\":[0.5,1,2,5,10,20,50,100,200,500,1000,2000,5000],"
              "\"sumSeconds\":8.0146}");  // 0.3 + 0.5 + ... + 7000 ms
}

VariableValues Row(const char *name, QList<quint32> values, bool confirmed = true) {
    Variable variable;
    variable.name = name;
    variable.station = 1;
    variable.area = "4x";
    variable.addressText = "0";
    variable.length = 1;
    return {variable, values, confirmed, std::nullopt};
}

TEST(ChangesJson, SendsOnlyTheRowsThatChangedWithTheirIndex) {
    LiveSnapshot before;
    before.rows = {Row("a", {1}), Row("b", {2}), Row("c", {3}, false), Row("d", {4})};
    LiveSnapshot now = before;
    now.pass = 7;
    now.time = 12.5;
    now.rows = {Row("a", {1}), Row("b", {5}), Row("c", {3}), Row("d", {9}, false)};
    now.rows[1].ageMs = 250;
    EXPECT_EQ(Compact(ChangesJson(before, now)),
              "{\"changed\":["
              "{\"address\":\"0\",\"ageMs\":250,\"area\":\"4x\",\"confirmed\":true,"
              "\"encodedAddress\":0,\"index\":1,\"length\":1,\"name\":\"b\",\"station\":1,"
              "\"values\":[5]},"
              "{\"address\":\"0\",\"ageMs\":null,\"area\":\"4x\",\"confirmed\":true,"
              "\"encodedAddress\":0,\"index\":2,\"length\":1,\"name\":\"c\",\"station\":1,"
              "\"values\":[3]},"
              "{\"address\":\"0\",\"ageMs\":null,\"area\":\"4x\",\"confirmed\":false,"
              "\"encodedAddress\":0,\"index\":3,\"length\":1,\"name\":\"d\",\"station\":1,"
              "\"values\":null}],"
              "\"cycle\":7,\"final\":false,\"time\":12.5}");
}

TEST(ChangesJson, AnUnconfirmedValueThatMovesInTheCacheIsNoChange) {
    LiveSnapshot before;
    before.rows = {Row("a", {1}, false)};
    LiveSnapshot now = before;
    now.rows = {Row("a", {2}, false)};
    EXPECT_TRUE(ChangesJson(before, now).value("changed").toArray().isEmpty());
}

}  // namespace
