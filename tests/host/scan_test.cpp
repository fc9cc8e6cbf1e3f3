// SPDX-License-Identifier: MIT
// The bus scan's pieces: the station range, what a probe came to, and its JSON line.
#include "scan.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

#include "tool_error.h"

namespace {

TEST(ParseStationRange, TakesFirstAndLastFromOneTo247) {
    const StationRange whole = ParseStationRange("1-247");
    EXPECT_EQ(whole.first, 1);
    EXPECT_EQ(whole.last, 247);
    const StationRange one = ParseStationRange("17-17");
    EXPECT_EQ(one.first, 17);
    EXPECT_EQ(one.last, 17);
}

class RefusedRangeTest : public ::testing::TestWithParam<const char *> {};

TEST_P(RefusedRangeTest, IsAToolError) {
    EXPECT_THROW(ParseStationRange(GetParam()), ToolError);
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedRangeTest,
                         ::testing::Values("0-5", "5-3", "1-248", "7", "1-", "-4", "a-b", "1-2-3",
                                           ""));

TEST(ExceptionCodeOf, ReadsTheByteAfterTheFunction) {
    EXPECT_EQ(ExceptionCodeOf(":0183027A\r\n"), 2);
    EXPECT_EQ(ExceptionCodeOf(":0A830B68\r\n"), 11);
}

Exchange Handed(const QByteArray &reply, FrameKind kind, qint64 responseNanoseconds) {
    Exchange exchange;
    exchange.reply = reply;
    exchange.replyKind = kind;
    exchange.responseNanoseconds = responseNanoseconds;
    return exchange;
}

QJsonObject Json(const char *text) {
    return QJsonDocument::fromJson(text).object();
}

TEST(ProbeResultOf, AnAcceptedReplyAnswers) {
    ProbeResult probe =
        ProbeResultOf(3, 1, Handed(":030302002ACE\r\n", FrameKind::Answer, 2500000));
    probe.value = 42;
    EXPECT_EQ(ProbeJson(probe),
              Json(R"({"station": 3, "status": "answered", "value": 42, "response_ms": 2.5})"));
}

TEST(ProbeResultOf, AnExceptionReplyGivesItsCode) {
    const ProbeResult probe =
        ProbeResultOf(1, 71, Handed(":0183027A\r\n", FrameKind::Exception, 1250000));
    EXPECT_EQ(ProbeJson(probe),
              Json(R"({"station": 1, "status": "exception", "code": 2, "response_ms": 1.25})"));
}

TEST(ProbeResultOf, NothingInTimeIsSilent) {
    const ProbeResult probe = ProbeResultOf(9, 41, Exchange());
    EXPECT_EQ(ProbeJson(probe), Json(R"({"station": 9, "status": "silent", "response_ms": null})"));
}

TEST(ProbeResultOf, AnUnreadableReplyIsSilentAndSaysWhatCame) {
    Exchange exchange;
    exchange.strays = {{FrameKind::Garbled, ":090302002AC7\r\n"}};
    const ProbeResult probe = ProbeResultOf(9, 41, exchange);
    EXPECT_EQ(ProbeJson(probe), Json(R"({"station": 9, "status": "silent", "response_ms": null,
                                         "outcome": "badContent"})"));
}

}  // namespace
