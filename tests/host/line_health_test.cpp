// SPDX-License-Identifier: MIT
// Line health: what a transaction came to, response-time figures and the per-station counts.
#include "line_health.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

namespace {

// A read of one holding register at 0 from station 1, and replies to it; LRCs worked out by
// hand (two's complement of the byte sum).
const QByteArray kRead = ":010300000001FB\r\n";
const QByteArray kAnswer = ":010302002AD0\r\n";
const QByteArray kBadLrc = ":010302002AD1\r\n";
const QByteArray kTwoRegisters = ":01030400010002F5\r\n";
const QByteArray kException = ":0183027A\r\n";
const QByteArray kFromStation2 = ":020302002ACF\r\n";

Exchange Handed(const QByteArray &reply, FrameKind kind, qint64 responseNanoseconds = 0) {
    Exchange exchange;
    exchange.reply = reply;
    exchange.replyKind = kind;
    exchange.responseNanoseconds = responseNanoseconds;
    return exchange;
}

Exchange NothingHanded(const QList<StrayFrame> &strays = {}) {
    Exchange exchange;
    exchange.strays = strays;
    return exchange;
}

struct OutcomeCase {
    const char *name;
    int result;
    Exchange exchange;
    Outcome expected;
};

const OutcomeCase kOutcomeCases[] = {
    {"accepted_answer", 1, Handed(kAnswer, FrameKind::Answer), Outcome::Accepted},
    {"silence_sent_again", 0, NothingHanded(), Outcome::NoReply},
    {"silence_abandoned", 41, NothingHanded(), Outcome::NoReply},
    {"bad_lrc_set_aside", 0, NothingHanded({{FrameKind::Garbled, kBadLrc}}), Outcome::BadContent},
    {"bad_lrc_set_aside_then_abandoned", 41, NothingHanded({{FrameKind::Garbled, kBadLrc}}),
     Outcome::BadContent},
    {"two_registers_for_one", 41, NothingHanded({{FrameKind::WrongLength, kTwoRegisters}}),
     Outcome::WrongLength},
    {"echo_of_another_request", 0,
     NothingHanded({{FrameKind::OtherRequest, ":0106000A1235A8\r\n"}}), Outcome::BadContent},
    {"only_another_station_spoke", 0, NothingHanded({{FrameKind::OtherStation, kFromStation2}}),
     Outcome::NoReply},
    {"only_a_late_frame", 41, NothingHanded({{FrameKind::Late, kBadLrc}}), Outcome::NoReply},
    {"differing_echo", 0,
     NothingHanded({{FrameKind::BadEcho, ":010300000002FA\r\n"}, {FrameKind::Late, kAnswer}}),
     Outcome::BadEcho},
    {"echo_and_silence", 41, NothingHanded({{FrameKind::Echo, kRead}}), Outcome::NoReply},
    {"exception_sent_again", 0, Handed(kException, FrameKind::Exception), Outcome::Exception},
    {"exception_abandoned", 71, Handed(kException, FrameKind::Exception), Outcome::Exception},
    {"answer_the_driver_rejected", 0, Handed(":010302002ad0\r\n", FrameKind::Answer),
     Outcome::BadContent},
    {"answer_abandoned_for_content", 11, Handed(":010302002ad0\r\n", FrameKind::Answer),
     Outcome::BadContent},
    {"answer_abandoned_for_length", 74, Handed(kAnswer, FrameKind::Answer), Outcome::WrongLength},
};

class ClassifyTransactionTest : public ::testing::TestWithParam<OutcomeCase> {};

TEST_P(ClassifyTransactionTest, JudgesFromTheLineAndTheDriversResult) {
    const OutcomeCase &row = GetParam();
    EXPECT_STREQ(OutcomeName(ClassifyTransaction(row.result, row.exchange)),
                 OutcomeName(row.expected));
}

INSTANTIATE_TEST_SUITE_P(Transactions, ClassifyTransactionTest, ::testing::ValuesIn(kOutcomeCases),
                         [](const ::testing::TestParamInfo<OutcomeCase> &info) {
                             return std::string(info.param.name);
                         });

TEST(FrameFields, StationAndFunctionComeFromTheFirstTwoBytes) {
    EXPECT_EQ(StationOfFrame(":0A0300000001F2\r\n"), 10);
    EXPECT_EQ(FunctionOfFrame(":0A0300000001F2\r\n"), 3);
    EXPECT_EQ(StationOfFrame(":F7100000"), 247);
    EXPECT_EQ(FunctionOfFrame(":F7100000"), 16);
    EXPECT_EQ(StationOfFrame(":G1"), -1);
    EXPECT_EQ(FunctionOfFrame(":01"), -1);
}

constexpr qint64 kMs = 1000000;

TEST(FiguresOfResponses, NearestRanksOfFiveSamples) {
    const ResponseFigures figures =
        FiguresOfResponses({5 * kMs, 1 * kMs, 3 * kMs, 2 * kMs, 4 * kMs});
    EXPECT_EQ(figures.samples, 5);
    EXPECT_DOUBLE_EQ(figures.minMs, 1.0);
    EXPECT_DOUBLE_EQ(figures.medianMs, 3.0);
    EXPECT_DOUBLE_EQ(figures.p95Ms, 5.0);
    EXPECT_DOUBLE_EQ(figures.maxMs, 5.0);
}

TEST(FiguresOfResponses, NearestRanksOfTwentySamples) {
    std::vector<qint64> samples;
    for (int ms = 20; ms >= 1; --ms) samples.push_back(ms * kMs);
    const ResponseFigures figures = FiguresOfResponses(samples);
    EXPECT_DOUBLE_EQ(figures.medianMs, 10.0);  // rank 10 of 20
    EXPECT_DOUBLE_EQ(figures.p95Ms, 19.0);     // rank 19 of 20
    EXPECT_DOUBLE_EQ(figures.maxMs, 20.0);
}

TEST(FiguresOfResponses, NoSamplesGiveZeros) {
    const ResponseFigures figures = FiguresOfResponses({});
    EXPECT_EQ(figures.samples, 0);
    EXPECT_DOUBLE_EQ(figures.maxMs, 0.0);
}

LineHealth TwoStations() {
    LineHealth health;
    health.record(kRead, 1, Handed(kAnswer, FrameKind::Answer, 2 * kMs));
    health.record(kRead, 0, NothingHanded({{FrameKind::Garbled, kBadLrc}}));
    health.record(kRead, 71, Handed(kException, FrameKind::Exception, 4 * kMs));
    health.record(":050300000001F7\r\n", 41, NothingHanded());
    return health;
}

TEST(LineHealth, CountsEachStationApart) {
    const LineHealth health = TwoStations();
    ASSERT_EQ(health.stations().keys(), QList<int>({1, 5}));
    const StationHealth &one = health.stations()[1];
    EXPECT_EQ(one.transactions, 3);
    EXPECT_EQ(one.count(Outcome::Accepted), 1);
    EXPECT_EQ(one.count(Outcome::BadContent), 1);
    EXPECT_EQ(one.count(Outcome::Exception), 1);
    EXPECT_EQ(one.failures(), 2);
    EXPECT_EQ(one.strayFrames, 1);
    EXPECT_EQ(one.responses.kept(), std::vector<qint64>({2 * kMs, 4 * kMs}));
    const StationHealth &five = health.stations()[5];
    EXPECT_EQ(five.count(Outcome::NoReply), 1);
    EXPECT_TRUE(five.responses.kept().empty());
}

// A run of months keeps no more than the last 1024 response times; the count, minimum and
// maximum still cover every sample.
TEST(ResponseSamples, KeepTheLastSamplesAndTheWholeRunsExtremes) {
    ResponseSamples samples;
    samples.add(1 * kMs);
    samples.add(500 * kMs);
    for (int i = 0; i < 1024; ++i) samples.add(2 * kMs);
    EXPECT_EQ(samples.kept().size(), 1024u);
    EXPECT_EQ(samples.kept(), std::vector<qint64>(1024, 2 * kMs));
    const ResponseFigures figures = samples.figures();
    EXPECT_EQ(figures.samples, 1026);
    EXPECT_EQ(QList<double>({figures.minMs, figures.medianMs, figures.p95Ms, figures.maxMs}),
              QList<double>({1.0, 2.0, 2.0, 500.0}));
}

TEST(ResponseSamples, TheRingReplacesTheOldestSampleFirst) {
    ResponseSamples samples;
    for (int i = 0; i < 1024; ++i) samples.add(3 * kMs);
    samples.add(7 * kMs);
    samples.add(9 * kMs);
    std::vector<qint64> expected(1024, 3 * kMs);
    expected[0] = 7 * kMs;
    expected[1] = 9 * kMs;
    EXPECT_EQ(samples.kept(), expected);
}

TEST(LineHealth, JsonHoldsFailuresByKindAndResponseTimes) {
    const QJsonArray expected = QJsonDocument::fromJson(R"([
        {"station": 1, "transactions": 3, "accepted": 1,
         "failures": {"noReply": 0, "badContent": 1, "wrongLength": 0, "exception": 1,
                      "badEcho": 0, "strayFrames": 1},
         "responseMs": {"samples": 2, "min": 2, "median": 2, "p95": 4, "max": 4}},
        {"station": 5, "transactions": 1, "accepted": 0,
         "failures": {"noReply": 1, "badContent": 0, "wrongLength": 0, "exception": 0,
                      "badEcho": 0, "strayFrames": 0},
         "responseMs": {"samples": 0, "min": 0, "median": 0, "p95": 0, "max": 0}}
    ])")
                                    .array();
    EXPECT_EQ(HealthJson(TwoStations()), expected);
}

TEST(LineHealth, TextLinesForTheSummaryAndTheLiveView) {
    const LineHealth health = TwoStations();
    EXPECT_EQ(HealthTable(health),
              QStringList({"station transactions accepted no-reply bad-content wrong-length "
                           "exception bad-echo stray | response ms: min median p95 max",
                           "      1            3        1        0           1            0 "
                           "        1        0     1 | 2.00 2.00 4.00 4.00",
                           "      5            1        0        1           0            0 "
                           "        0        0     0 | (no reply)"}));
    EXPECT_EQ(HealthLine(1, health.stations()[1]),
              "station 1: 1/3 accepted, badContent 1, exception 1, strayFrames 1; response ms "
              "min 2.00 median 2.00 p95 4.00 max 4.00");
    EXPECT_EQ(HealthLine(5, health.stations()[5]), "station 5: 0/1 accepted, noReply 1");
}

}  // namespace
