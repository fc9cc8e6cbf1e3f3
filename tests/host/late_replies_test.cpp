// SPDX-License-Identifier: MIT
// Late replies: which requests an owed reply could fool, how long they are held back, and what
// the guard learns from replies that come late.
#include "late_replies.h"

#include <gtest/gtest.h>

#include <ostream>

namespace {

// LRCs worked out by hand (two's complement of the byte sum).
const QByteArray kRead0 = ":010300000001FB\r\n";   // holding register 0
const QByteArray kRead10 = ":0103000A0001F1\r\n";  // holding register 10
const QByteArray kAnswer42 = ":010302002AD0\r\n";  // one register: answers either read
// Timing of the guard in these tests: 250 ms time-out, 200 ms quiet gap, so an owed reply is
// given up 3 * 250 + 200 = 950 ms after its request until the line has shown late replies,
// never later than 10 * 250 + 200 = 2700 ms.
constexpr int kTimeoutMs = 250;
constexpr int kQuietMs = 200;

struct LookAlikeCase {
    const char *name;
    const char *request;
    const char *other;
    bool expected;
};

const LookAlikeCase kLookAlikeCases[] = {
    {"reads_of_one_register_elsewhere", ":010300000001FB\r\n", ":0103000A0001F1\r\n", true},
    {"reads_of_two_registers_and_one", ":010300000001FB\r\n", ":010300000002FA\r\n", false},
    {"reads_of_another_station", ":010300000001FB\r\n", ":020300000001FA\r\n", false},
    {"reads_of_another_table", ":010300000001FB\r\n", ":010400000001FA\r\n", false},
    {"coil_reads_in_one_byte", ":010100000008F6\r\n", ":010100000001FD\r\n", true},
    {"coil_reads_in_one_byte_and_two", ":010100000008F6\r\n", ":010100000009F5\r\n", false},
    {"single_write_itself", ":0106000A1234A9\r\n", ":0106000A1234A9\r\n", true},
    {"single_writes_of_other_values", ":0106000A1234A9\r\n", ":0106000A1235A8\r\n", false},
    {"multiple_writes_of_one_span", ":0110001E00050A00010002000300040005B3\r\n",
     ":0110001E00050A00010002000300040006B2\r\n", true},
    {"multiple_writes_of_other_spans", ":0110001E00050A00010002000300040005B3\r\n",
     ":01100020000204000100020304BF\r\n", false},
    {"not_a_request", ":010300000001FB\r\n", "garbage", false},
};

void PrintTo(const LookAlikeCase &row, std::ostream *stream) {
    *stream << row.name;
}

class AnswersLookAlikeTest : public ::testing::TestWithParam<LookAlikeCase> {};

TEST_P(AnswersLookAlikeTest, ComparesTheShapeOfTheirAnswers) {
    const LookAlikeCase &row = GetParam();
    EXPECT_EQ(AnswersLookAlike(row.request, row.other), row.expected);
    EXPECT_EQ(AnswersLookAlike(row.other, row.request), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, AnswersLookAlikeTest, ::testing::ValuesIn(kLookAlikeCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(CoveringTimeoutMs, TheNextTenMillisecondsAbove) {
    EXPECT_EQ(CoveringTimeoutMs(0), 10);
    EXPECT_EQ(CoveringTimeoutMs(279), 280);
    EXPECT_EQ(CoveringTimeoutMs(280), 290);
}

TEST(LateReplyGuard, NothingOwedHoldsNothing) {
    const LateReplyGuard guard(kTimeoutMs, kQuietMs);
    EXPECT_EQ(guard.holdFor(kRead10, 0), 0);
    EXPECT_EQ(guard.horizonMs(), 950);
}

TEST(LateReplyGuard, HoldsBackOnlyAnotherRequestWithALookAlikeAnswer) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 1000);
    EXPECT_EQ(guard.holdFor(kRead10, 1100), 850);
    EXPECT_EQ(guard.holdFor(kRead0, 1100), 0);                 // its own retry
    EXPECT_EQ(guard.holdFor(":010300000002FA\r\n", 1100), 0);  // two registers
    EXPECT_EQ(guard.holdFor(kRead10, 1950), 0);                // given up
}

TEST(LateReplyGuard, AReplyThatComesEndsTheHoldAndIsLearned) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 1000);
    EXPECT_TRUE(guard.noteSetAside(kAnswer42, 1700));
    EXPECT_EQ(guard.holdFor(kRead10, 1701), 0);
    EXPECT_EQ(guard.figures().lateReplies, 1);
    EXPECT_EQ(guard.figures().latestMs, 700);
    EXPECT_EQ(guard.figures().longestMs, 700);
    EXPECT_EQ(guard.horizonMs(), 1050);
    EXPECT_FALSE(guard.noteSetAside(kAnswer42, 1800));  // nothing owed any more
}

TEST(LateReplyGuard, TheLearnedWaitHasALimit) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    EXPECT_TRUE(guard.noteSetAside(kAnswer42, 2600));
    EXPECT_EQ(guard.horizonMs(), 2700);
    guard.noteUnanswered(kRead0, 10000);
    EXPECT_FALSE(guard.noteSetAside(kAnswer42, 12701));  // later than any wait: not learned
    EXPECT_EQ(guard.figures().longestMs, 2600);
}

TEST(LateReplyGuard, AnAnswerLeavesTheSameRequestsReplyOwed) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    guard.noteAnswered(kRead0, 500, 510);
    EXPECT_EQ(guard.holdFor(kRead10, 600), 850);
}

TEST(LateReplyGuard, AnAnswerAfterTheHorizonSettlesTheOwedReply) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    guard.noteAnswered(kRead0, 940, 951);  // 951 ms: no longer the reply sent for at 0
    EXPECT_EQ(guard.holdFor(kRead10, 960), 0);
    guard.noteAnswered(kRead0, 2000, 2010);
    EXPECT_EQ(guard.holdFor(kRead10, 2020), 0);
}

TEST(LateReplyGuard, ARequestAnsweredEveryPassHoldsItsLookAlikeOnceAtMost) {
    // Two one-register reads take turns; the first read of the run went unanswered.
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    EXPECT_EQ(guard.holdFor(kRead10, 450), 500);
    for (qint64 sent = 960; sent < 5000; sent += 20) {
        guard.noteAnswered(kRead0, sent, sent + 5);
        EXPECT_EQ(guard.holdFor(kRead10, sent + 10), 0) << sent;
    }
}

TEST(LateReplyGuard, ASettledReplyThatStillComesIsLearned) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    guard.noteAnswered(kRead0, 1000, 1010);
    EXPECT_TRUE(guard.noteSetAside(kAnswer42, 1200));
    EXPECT_EQ(guard.figures().lateReplies, 1);
    EXPECT_EQ(guard.figures().longestMs, 1200);
}

TEST(LateReplyGuard, ALateReplyIsTakenForTheLatestRequestItAnswers) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteUnanswered(kRead0, 0);
    guard.noteUnanswered(kRead10, 100);
    EXPECT_TRUE(guard.noteSetAside(kAnswer42, 800));
    EXPECT_EQ(guard.figures().latestMs, 700);
    // The read of register 0 is still owed, now given up 1.5 * 700 ms after it was sent.
    EXPECT_EQ(guard.holdFor(kRead10, 801), 249);
}

TEST(LateReplyGuard, CountsItsHolds) {
    LateReplyGuard guard(kTimeoutMs, kQuietMs);
    guard.noteHold(300);
    guard.noteHold(20);
    EXPECT_EQ(guard.figures().holds, 2);
    EXPECT_EQ(guard.figures().heldMs, 320);
}

}  // namespace
