// SPDX-License-Identifier: MIT
// Records of the run log.
#include "run_log.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

namespace {

QJsonObject Json(const char *text) {
    return QJsonDocument::fromJson(text).object();
}

TEST(RunLog, APassRecordHoldsEveryTagsValues) {
    Variable level;
    level.name = "level";
    level.station = 2;
    level.area = "4x";
    level.addressText = "100";
    Variable alarm;
    alarm.name = "alarm";
    alarm.station = 2;
    alarm.area = "4x_bit";
    alarm.addressText = "10.3";
    const QJsonObject record = PassRecord(
        1700000000.25, 7, {{level, {1, 65535}, true, 250}, {alarm, {0}, false, std::nullopt}});
    EXPECT_EQ(record, Json(R"({"record": "pass", "time": 1700000000.25, "pass": 7, "tags": [
        {"name": "level", "station": 2, "area": "4x", "address": "100", "confirmed": true,
         "values": [1, 65535]},
        {"name": "alarm", "station": 2, "area": "4x_bit", "address": "10.3", "confirmed": false,
         "values": null}]})"));
}

TEST(RunLog, ATransactionRecordSaysWhatTheRequestCameTo) {
    Exchange answered;
    answered.reply = ":010302002AD0\r\n";
    answered.responseNanoseconds = 3500000;
    EXPECT_EQ(TransactionRecord(1700000000.5, ":010300000001FB\r\n", 1, answered),
              Json(R"({"record": "transaction", "time": 1700000000.5, "station": 1,
                       "function": 3, "result": 1, "outcome": "accepted", "response_ms": 3.5,
                       "stray_frames": 0})"));
    Exchange silence;
    silence.strays = {{FrameKind::Late, ":010302002AD0\r\n"}};
    EXPECT_EQ(TransactionRecord(1700000001.0, ":050600010002D2\r\n", 45, silence),
              Json(R"({"record": "transaction", "time": 1700000001.0, "station": 5,
                       "function": 6, "result": 45, "outcome": "noReply", "response_ms": null,
                       "stray_frames": 1})"));
}

}  // namespace
