// SPDX-License-Identifier: MIT
// The poll scheduler: which request is served next, bursts, retries and abandonment, the
// cycle bookkeeping in ComInfo and the completion callback.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver_fixture.h"
#include "driver_internal.h"
#include "test_responder.h"

namespace {

class SchedulerTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        slave = &responder.Station(1);
    }

    // A one-register holding write of a given owner.
    static RW_VAR Write(int address, int ownerType, int ownerId, int station = 1) {
        RW_VAR v = MakeVar("4x", address, station, 1, 1, Bytes({address & 0xFF, 0x00}));
        v.ownerType = ownerType;
        v.ownerId = ownerId;
        return v;
    }

    static RW_VAR Read(int address, int count = 1, int ownerType = 0, int ownerId = 0) {
        RW_VAR v = MakeVar("4x", address, 1, count, 0);
        v.ownerType = ownerType;
        v.ownerId = ownerId;
        return v;
    }

    void QueueWrites(int n, int firstAddress = 0) {
        for (int i = 0; i < n; ++i) {
            RW_VAR v = Write(firstAddress + i, 1, firstAddress + i);
            AddListWriteVar(&v);
        }
    }

    // Runs n turns; each turn gives "W<address>" for a function-6 frame, "R<address>" for a
    // function-3 frame and "-" when no frame was sent.
    std::vector<std::string> Turns(int n) {
        std::vector<std::string> turns;
        for (int i = 0; i < n; ++i) {
            const PollStep step = PollOnce(responder);
            if (!step.sent) {
                turns.push_back("-");
                continue;
            }
            const DecodedRequest r = TestResponder::Decode(step.frame);
            const char *kind = r.function == 6 ? "W" : r.function == 3 ? "R" : "?";
            turns.push_back(kind + std::to_string(r.address));
        }
        return turns;
    }

    TestResponder responder;
    SlaveStation *slave = nullptr;
};

using Seq = std::vector<std::string>;

// ---- Choice of the next request ----------------------------------------------------------

TEST_F(SchedulerTest, FiveWritesThenOneCyclicReadAndSoOn) {
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    QueueWrites(12);
    EXPECT_EQ(Turns(16), (Seq{"W0", "W1", "W2", "W3", "W4", "R500", "W5", "W6", "W7", "W8", "W9",
                              "R500", "W10", "W11", "R500", "R500"}));
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(RecordedCallbacks().size(), 12u);
}

TEST_F(SchedulerTest, OnlyWritesGiveFiveThenOneIdlePollThenFiveMore) {
    QueueWrites(12);
    EXPECT_EQ(Turns(5), (Seq{"W0", "W1", "W2", "W3", "W4"}));
    EXPECT_EQ(PLC_driver.writeBurst, 5);
    info.cycleDone = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(info.cycleDone, 1);
    EXPECT_EQ(Turns(7), (Seq{"W5", "W6", "W7", "W8", "W9", "-", "W10"}));
}

TEST_F(SchedulerTest, WritesThenOnceReadsThenCyclicRead) {
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    QueueWrites(6);
    for (int i = 0; i < 6; ++i) PLC_driver.onceReadList.append(Read(300 + i, 1, 2, i));
    EXPECT_EQ(Turns(15), (Seq{"W0", "W1", "W2", "W3", "W4", "R300", "R301", "R302", "R303", "R304",
                              "R500", "W5", "R305", "R500", "R500"}));
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(SchedulerTest, OnlyOnceReadsGiveFiveThenOneIdlePoll) {
    for (int i = 0; i < 7; ++i) PLC_driver.onceReadList.append(Read(300 + i, 1, 2, i));
    EXPECT_EQ(Turns(9), (Seq{"R300", "R301", "R302", "R303", "R304", "-", "R305", "R306", "-"}));
    EXPECT_EQ(RecordedCallbacks().size(), 7u);
}

TEST_F(SchedulerTest, WritesAndOnceReadsWithoutCyclicReadHaveIdlePollAfterBothBursts) {
    QueueWrites(6);
    for (int i = 0; i < 6; ++i) PLC_driver.onceReadList.append(Read(300 + i, 1, 2, i));
    EXPECT_EQ(Turns(14), (Seq{"W0", "W1", "W2", "W3", "W4", "R300", "R301", "R302", "R303", "R304",
                              "-", "W5", "R305", "-"}));
}

TEST_F(SchedulerTest, NothingToDoIsAnIdlePollThatMarksTheCycle) {
    PLC_driver.writeBurst = 3;
    PLC_driver.onceBurst = 2;
    info.cycleDone = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(info.cycleDone, 1);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
}

TEST_F(SchedulerTest, CyclicReadResetsBothBurstCounters) {
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    PLC_driver.writeBurst = 5;
    PLC_driver.onceBurst = 5;
    QueueWrites(1);
    PLC_driver.onceReadList.append(Read(300, 1, 2, 0));
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame, QByteArray(":010301F4000106\r\n"));
    EXPECT_EQ(PLC_driver.currentKind, 0);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
}

TEST_F(SchedulerTest, QueuedFrameIsReturnedAgainWithoutBuildingAnother) {
    QueueWrites(2);
    Protocol *first = ComCommunication();
    ASSERT_NE(first, nullptr);
    Protocol *again = ComCommunication();
    EXPECT_EQ(again, first);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    EXPECT_EQ(PLC_driver.currentKind, 1);
}

TEST_F(SchedulerTest, RequestStaysAtHeadOfItsListWhileInFlight) {
    QueueWrites(2);
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(PLC_driver.writeList.first().address, 0);
}

// ---- Multi-frame requests ----------------------------------------------------------------

TEST_F(SchedulerTest, BitWriteIsFinishedOnlyWhenSecondFrameIsAccepted) {
    slave->holdingRegisters[0x100] = 0x0001;
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    bit.ownerType = 2;
    bit.ownerId = 5;
    AddListWriteVar(&bit);

    PollStep read = PollOnce(responder);
    ASSERT_TRUE(read.sent);
    EXPECT_EQ(read.frame, QByteArray(":010301000001FA\r\n"));
    EXPECT_EQ(read.reply, QByteArray(":0103020001F9\r\n"));
    EXPECT_EQ(read.result, 1);
    EXPECT_EQ(info.framesInRequest, 2);
    EXPECT_EQ(info.framesDone, 1);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_TRUE(RecordedCallbacks().empty());
    ASSERT_EQ(PLC_driver.sendList.size(), 1);

    PollStep write = PollOnce(responder);
    ASSERT_TRUE(write.sent);
    EXPECT_EQ(write.frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(write.result, 1);
    EXPECT_EQ(info.framesDone, 2);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 2, 5, 1}}));
    EXPECT_EQ(slave->holdingRegisters[0x100], 0x0021);
    EXPECT_EQ(PLC_driver.holdingRegArea[0x100], 0x0001);  // as read back
}

TEST_F(SchedulerTest, FirstFrameOfTwoDoesNotCountTowardsTheCycle) {
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    AddListWriteVar(&bit);
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    info.cycleDone = 0;
    PollOnce(responder);
    EXPECT_EQ(PLC_driver.readCursor, 0);
    PollOnce(responder);
    EXPECT_EQ(PLC_driver.readCursor, 1);
    EXPECT_EQ(info.cycleDone, 0);
}

// ---- Rejected replies, retries and abandonment -------------------------------------------

TEST_F(SchedulerTest, NoReplyWithRetryLimitTwoGivesZeroTwiceThenCode41) {
    slave->mode = SlaveMode::kSilence;
    RW_VAR w = Write(1, 0, 9);
    AddListWriteVar(&w);
    PollStep a = PollOnce(responder);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
    PollStep b = PollOnce(responder);
    EXPECT_EQ(b.result, 0);
    EXPECT_EQ(b.frame, a.frame);
    EXPECT_EQ(info.retryCount, 2);
    PollStep c = PollOnce(responder);
    EXPECT_EQ(c.result, 41);
    EXPECT_EQ(c.frame, a.frame);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(PLC_driver.linkFailed, 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 0, 9, 2}}));
    EXPECT_EQ(responder.Received().size(), 3u);
}

struct FailureCase {
    SlaveMode mode;
    int ownerType;
    int code;
};

class AbandonCodeTest : public SchedulerTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(AbandonCodeTest, AbandonedWriteReturnsCodeOfLastFailure) {
    slave->mode = GetParam().mode;
    // Value 3 at register 1: the reply's LRC F5 has a letter to lower.
    RW_VAR w = MakeVar("4x", 1, 1, 1, 1, Bytes({3, 0}));
    w.ownerType = GetParam().ownerType;
    w.ownerId = 40;
    AddListWriteVar(&w);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, GetParam().code);
    if (GetParam().mode == SlaveMode::kLowerCaseLrc) {
        EXPECT_TRUE(responder.LastLrcHadLetter());
    }
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, GetParam().ownerType, 40, 2}}));
}

INSTANTIATE_TEST_SUITE_P(Failures, AbandonCodeTest,
                         ::testing::Values(FailureCase{SlaveMode::kSilence, 3, 44},
                                           FailureCase{SlaveMode::kWrongLength, 3, 74},
                                           FailureCase{SlaveMode::kException, 3, 74},
                                           FailureCase{SlaveMode::kBadLrc, 3, 14},
                                           FailureCase{SlaveMode::kLowerCaseLrc, 3, 14},
                                           FailureCase{SlaveMode::kSilence, 11, 52},
                                           FailureCase{SlaveMode::kException, 0, 71},
                                           FailureCase{SlaveMode::kBadLrc, 12, 11}));

TEST_F(SchedulerTest, RetryCountAccumulatesAcrossGoodReplies) {
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    slave->scripted = {SlaveMode::kSilence, SlaveMode::kCorrect, SlaveMode::kSilence,
                       SlaveMode::kCorrect, SlaveMode::kSilence};
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(PLC_driver.linkFailed, 0);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(info.retryCount, 2);
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_EQ(info.retryCount, 2);
    EXPECT_EQ(PollOnce(responder).result, 41);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(PLC_driver.linkFailed, 1);
}

TEST_F(SchedulerTest, RetryLimitZeroAbandonsOnFirstFailure) {
    info.retryLimit = 0;
    slave->mode = SlaveMode::kBadLrc;
    RW_VAR w = Write(1, 2, 3);
    AddListWriteVar(&w);
    EXPECT_EQ(PollOnce(responder).result, 13);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 2, 3, 2}}));
}

TEST_F(SchedulerTest, ExhaustedRetriesClearEveryQueuedFrame) {
    slave->mode = SlaveMode::kSilence;
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    bit.ownerType = 1;
    bit.ownerId = 8;
    AddListWriteVar(&bit);
    ASSERT_NE(ComCommunication(), nullptr);
    ASSERT_EQ(PLC_driver.sendList.size(), 2);
    Protocol foreign;
    foreign.frame = ":010300000001FB\r\n";
    foreign.frameLength = 17;
    foreign.replyLength = 15;
    PLC_driver.sendList.append(foreign);

    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 42);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 1, 8, 2}}));
    // The placeholder write was never sent.
    for (const DecodedRequest &r : responder.Decoded()) EXPECT_EQ(r.function, 3);
    EXPECT_EQ(responder.Received().size(), 3u);
}

TEST_F(SchedulerTest, FailedSecondFrameOfBitWriteAbandonsTheWrite) {
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    AddListWriteVar(&bit);
    slave->scripted = {SlaveMode::kCorrect, SlaveMode::kBadLrc, SlaveMode::kBadLrc,
                       SlaveMode::kBadLrc};
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 11);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 0, 0, 2}}));
}

TEST_F(SchedulerTest, AbandonedCyclicReadIsRotatedWithoutCallback) {
    RW_VAR a = Read(0);
    RW_VAR b = Read(10);
    AddListReadVar(&a);
    AddListReadVar(&b);
    slave->scripted = {SlaveMode::kSilence, SlaveMode::kSilence, SlaveMode::kSilence};
    EXPECT_EQ(Turns(4), (Seq{"R0", "R0", "R0", "R10"}));
    EXPECT_TRUE(RecordedCallbacks().empty());
    EXPECT_EQ(PLC_driver.readList.size(), 2);
    EXPECT_EQ(PLC_driver.readList.first().address, 0);
}

TEST_F(SchedulerTest, AbandonedOnceReadIsRemovedAndReportedWithStatusTwo) {
    slave->mode = SlaveMode::kException;
    PLC_driver.onceReadList.append(Read(40, 2, 4, 77));
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PollOnce(responder).result, 75);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 4, 77, 2}}));
}

TEST_F(SchedulerTest, RejectedReplyResetsCycleBookkeeping) {
    for (int a : {0, 10, 20}) {
        RW_VAR r = Read(a);
        AddListReadVar(&r);
    }
    info.cycleDone = 0;
    PollOnce(responder);
    PollOnce(responder);
    EXPECT_EQ(PLC_driver.readCursor, 2);
    slave->scripted = {SlaveMode::kSilence};
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(PLC_driver.readCursor, 0);
    EXPECT_EQ(info.cycleDone, 0);

    info.cycleDone = 1;
    slave->scripted = {SlaveMode::kSilence};
    EXPECT_EQ(PollOnce(responder).result, 0);
    EXPECT_EQ(info.cycleDone, 0);
}

TEST_F(SchedulerTest, GoodReplyAfterAbandonmentClearsLinkFailedAndWritesUpdateImageAgain) {
    slave->mode = SlaveMode::kSilence;
    RW_VAR lost = Write(1, 1, 1);
    AddListWriteVar(&lost);
    PollOnce(responder);
    PollOnce(responder);
    EXPECT_EQ(PollOnce(responder).result, 42);
    EXPECT_EQ(PLC_driver.linkFailed, 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[1], 1);  // cached when its frame was built, link up

    slave->mode = SlaveMode::kCorrect;
    RW_VAR b = MakeVar("4x", 5, 1, 1, 1, Bytes({0x34, 0x12}));
    b.ownerType = 1;
    b.ownerId = 2;
    AddListWriteVar(&b);
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.holdingRegArea[5], 0);  // link still down at build time
    QByteArray reply = responder.Answer(PLC_driver.sendList.first().frame);
    EXPECT_EQ(DataCom(&reply), 1);
    EXPECT_EQ(PLC_driver.linkFailed, 0);

    RW_VAR c = MakeVar("4x", 6, 1, 1, 1, Bytes({0x78, 0x56}));
    c.ownerType = 1;
    c.ownerId = 3;
    AddListWriteVar(&c);
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.holdingRegArea[6], 0x5678);  // link up: image follows the frame
    reply = responder.Answer(PLC_driver.sendList.first().frame);
    EXPECT_EQ(DataCom(&reply), 1);
    EXPECT_EQ(RecordedCallbacks(),
              (std::vector<CallbackRecord>{{7, 1, 1, 2}, {7, 1, 2, 1}, {7, 1, 3, 1}}));
}

// ---- Cycle bookkeeping -------------------------------------------------------------------

TEST_F(SchedulerTest, CycleDoneIsSetOnTheFourthCompletionOfThreeCyclicReads) {
    for (int a : {0, 10, 20}) {
        RW_VAR r = Read(a);
        AddListReadVar(&r);
    }
    info.cycleDone = 0;
    EXPECT_EQ(Turns(1), Seq{"R0"});
    EXPECT_EQ(PLC_driver.readCursor, 1);
    EXPECT_EQ(Turns(1), Seq{"R10"});
    EXPECT_EQ(PLC_driver.readCursor, 2);
    EXPECT_EQ(Turns(1), Seq{"R20"});
    EXPECT_EQ(PLC_driver.readCursor, 3);
    EXPECT_EQ(info.cycleDone, 0);
    EXPECT_EQ(Turns(1), Seq{"R0"});
    EXPECT_EQ(PLC_driver.readCursor, 0);
    EXPECT_EQ(info.cycleDone, 1);
    EXPECT_EQ(Turns(1), Seq{"R10"});
    EXPECT_EQ(PLC_driver.readCursor, 0);  // not counted while the mark stands
    EXPECT_EQ(info.cycleDone, 1);
}

TEST_F(SchedulerTest, WritesCountTowardsTheCycleToo) {
    RW_VAR r = Read(0);
    AddListReadVar(&r);
    QueueWrites(1, 50);
    info.cycleDone = 0;
    EXPECT_EQ(Turns(1), Seq{"W50"});
    EXPECT_EQ(PLC_driver.readCursor, 1);
    EXPECT_EQ(Turns(1), Seq{"R0"});
    EXPECT_EQ(PLC_driver.readCursor, 0);
    EXPECT_EQ(info.cycleDone, 1);
}

// ---- Completion --------------------------------------------------------------------------

TEST_F(SchedulerTest, TwoWritesOfTheSameOwnerGiveOneCallbackAfterTheSecond) {
    RW_VAR a = Write(1, 1, 9);
    RW_VAR b = Write(2, 1, 9);
    AddListWriteVar(&a);
    AddListWriteVar(&b);
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_TRUE(RecordedCallbacks().empty());
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 1, 9, 1}}));
}

TEST_F(SchedulerTest, OwnersDifferingInTypeOrIdAreReportedSeparately) {
    RW_VAR a = Write(1, 1, 9);
    RW_VAR b = Write(2, 2, 9);
    RW_VAR c = Write(3, 1, 8);
    AddListWriteVar(&a);
    AddListWriteVar(&b);
    AddListWriteVar(&c);
    Turns(3);
    EXPECT_EQ(RecordedCallbacks(),
              (std::vector<CallbackRecord>{{7, 1, 9, 1}, {7, 2, 9, 1}, {7, 1, 8, 1}}));
}

TEST_F(SchedulerTest, OwnerWithRequestQueuedFurtherBehindIsNotYetReported) {
    RW_VAR a = Write(1, 1, 9);
    RW_VAR other = Write(2, 2, 2);
    RW_VAR b = Write(3, 1, 9);
    AddListWriteVar(&a);
    AddListWriteVar(&other);
    AddListWriteVar(&b);
    Turns(3);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 2, 2, 1}, {7, 1, 9, 1}}));
}

TEST_F(SchedulerTest, CallbackCarriesDeviceIdOfCurrentComInfo) {
    ComInfo other = info;
    other.deviceId = 31;
    other.resetOnAttachA = 5;
    other.resetOnAttachB = 6;
    SetComInfo(&other);
    EXPECT_EQ(other.resetOnAttachA, 0);
    EXPECT_EQ(other.resetOnAttachB, 0);
    RW_VAR w = Write(1, 1, 9);
    AddListWriteVar(&w);
    PollOnce(responder);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{31, 1, 9, 1}}));
    EXPECT_EQ(other.framesDone, 1);
    EXPECT_EQ(info.framesDone, 0);
}

TEST_F(SchedulerTest, CompletedOnceReadIsStoredRemovedReportedAndKeptInCurrent) {
    slave->holdingRegisters[40] = 0x1111;
    slave->holdingRegisters[41] = 0x2222;
    RW_VAR once = Read(40, 2, 4, 77);
    once.auxName = QStringLiteral("tag");
    once.hostParamC = 12;
    PLC_driver.onceReadList.append(once);
    PollStep step = PollOnce(responder);
    EXPECT_EQ(step.frame, QByteArray(":010300280002D2\r\n"));
    EXPECT_EQ(step.result, 1);
    EXPECT_EQ(PLC_driver.holdingRegArea[40], 0x1111);
    EXPECT_EQ(PLC_driver.holdingRegArea[41], 0x2222);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 4, 77, 1}}));
    EXPECT_EQ(PLC_driver.current.address, 40);
    EXPECT_EQ(PLC_driver.current.count, 2);
    EXPECT_EQ(PLC_driver.current.ownerType, 4);
    EXPECT_EQ(PLC_driver.current.ownerId, 77);
    EXPECT_EQ(PLC_driver.current.auxName, QStringLiteral("tag"));
    EXPECT_EQ(PLC_driver.current.hostParamC, 12);
}

TEST_F(SchedulerTest, CompletedWriteIsKeptInCurrent) {
    RW_VAR w = Write(7, 3, 4);
    AddListWriteVar(&w);
    PollOnce(responder);
    EXPECT_EQ(PLC_driver.current.area, QStringLiteral("4x"));
    EXPECT_EQ(PLC_driver.current.address, 7);
    EXPECT_EQ(PLC_driver.current.direction, 1);
    EXPECT_EQ(PLC_driver.current.value, Bytes({7, 0}));
    EXPECT_EQ(slave->holdingRegisters[7], 7);
}

TEST_F(SchedulerTest, CyclicReadsAreRotatedAndNotReported) {
    for (int a : {0, 10, 20}) {
        RW_VAR r = Read(a);
        AddListReadVar(&r);
    }
    EXPECT_EQ(Turns(4), (Seq{"R0", "R10", "R20", "R0"}));
    EXPECT_EQ(PLC_driver.readList.first().address, 10);
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(SchedulerTest, BroadcastWriteIsAcceptedWithoutReply) {
    RW_VAR w = Write(3, 1, 6, 0);
    AddListWriteVar(&w);
    PollStep step = PollOnce(responder);
    EXPECT_EQ(step.frame, QByteArray(":000600030003F4\r\n"));
    EXPECT_TRUE(step.reply.isEmpty());
    EXPECT_EQ(step.result, 1);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 1, 6, 1}}));
    EXPECT_EQ(slave->holdingRegisters[3], 3);
}

// ---- A bit-in-register write addressed to broadcast --------------------------------------

TEST_F(SchedulerTest, BitWriteToBroadcastIsDroppedSilentlyAndBlocksWritesBehindIt) {
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 0, 1, 1, Bytes({1}));
    bit.ownerType = 1;
    bit.ownerId = 1;
    AddListWriteVar(&bit);
    RW_VAR behind = Write(9, 1, 2);
    AddListWriteVar(&behind);
    RW_VAR cyclic = Read(500);
    AddListReadVar(&cyclic);
    EXPECT_EQ(Turns(18), (Seq{"-", "-", "-", "-", "-", "R500", "-", "-", "-", "-", "-", "R500", "-",
                              "-", "-", "-", "-", "R500"}));
    EXPECT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_TRUE(RecordedCallbacks().empty());
    EXPECT_EQ(slave->holdingRegisters[9], 0);
}

TEST_F(SchedulerTest, BitWriteToBroadcastWithoutCyclicReadsNeverSendsAnything) {
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 0, 1, 1, Bytes({1}));
    AddListWriteVar(&bit);
    RW_VAR behind = Write(9, 1, 2);
    AddListWriteVar(&behind);
    EXPECT_EQ(Turns(14), Seq(14, "-"));
    EXPECT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_TRUE(responder.Received().empty());
}

// ---- Calls out of turn -------------------------------------------------------------------

TEST_F(SchedulerTest, DataComWithoutFrameInFlightReturnsZeroAndChangesNothing) {
    QueueWrites(1);
    info.retryCount = 1;
    info.cycleDone = 1;
    PLC_driver.readCursor = 2;
    QByteArray reply(":010600000000F9\r\n");
    EXPECT_EQ(DataCom(&reply), 0);
    QByteArray empty;
    EXPECT_EQ(DataCom(&empty), 0);
    EXPECT_EQ(DataCom(nullptr), 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(info.cycleDone, 1);
    EXPECT_EQ(PLC_driver.readCursor, 2);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.linkFailed, 0);
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(SchedulerTest, BeforeComInfoIsSetPollingDoesNothing) {
    PLC_driver.comInfo = nullptr;
    QueueWrites(1);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    QByteArray reply(":010600000000F9\r\n");
    EXPECT_EQ(DataCom(&reply), 0);
    EXPECT_EQ(DataCom(nullptr), 0);
}

TEST_F(SchedulerTest, NullReplyCountsAsEmptyReply) {
    RW_VAR w = Write(1, 2, 3);
    AddListWriteVar(&w);
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(DataCom(nullptr), 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(DataCom(nullptr), 0);
    EXPECT_EQ(DataCom(nullptr), 43);
    EXPECT_EQ(RecordedCallbacks(), (std::vector<CallbackRecord>{{7, 2, 3, 2}}));
}

TEST_F(SchedulerTest, NullCallbackIsNotCalled) {
    RegistCallBackFuncIntf(nullptr, 0);
    RW_VAR w = Write(1, 2, 3);
    AddListWriteVar(&w);
    EXPECT_EQ(PollOnce(responder).result, 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(SchedulerTest, ReplyBeforeAnyRequestWasStartedFinishesNothing) {
    QueueWrites(1);
    Protocol p;
    p.frame = ":010600000000F9\r\n";
    p.frameLength = 17;
    p.replyLength = 17;
    p.var = MakeVar("4x", 0, 1, 1, 1, Bytes({0, 0}));
    PLC_driver.sendList.append(p);
    ASSERT_EQ(PLC_driver.currentKind, 100);
    QByteArray reply(":010600000000F9\r\n");
    EXPECT_EQ(DataCom(&reply), 1);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_TRUE(RecordedCallbacks().empty());
}

// ---- Frames that would wait for a reply that can't be checked ----------------------------

TEST_F(SchedulerTest, NoFrameForNonzeroStationIsBuiltWithReplyLengthZero) {
    const char *readAreas[] = {"0x",     "1x",        "3x",        "4x", "3x_bit",
                               "4x_bit", "3x_double", "4x_double", "zz"};
    const char *writeAreas[] = {"0x", "4x", "4x_bit", "4x_double", "3x", "zz"};
    for (int station : {1, 255, 256, -1, 0x1F7}) {
        for (int count : {0, 1, 2, 3, 125, 70000, -1, -2, -5}) {
            for (const char *name : readAreas) {
                RW_VAR v = MakeVar(name, 0, station, count, 0);
                ReadRegister(&v);
            }
            for (const char *name : writeAreas) {
                RW_VAR v = MakeVar(name, 0x10, station, count, 1, Bytes({1, 0, 0, 0}));
                WriteRegister(&v);
            }
            for (const Protocol &p : PLC_driver.sendList) {
                EXPECT_NE(p.replyLength, 0)
                    << p.var.area.toStdString() << " station " << station << " count " << count;
            }
            PLC_driver.sendList.clear();
        }
    }
}

TEST_F(SchedulerTest, BroadcastFramesExpectNoReply) {
    for (const char *name : {"0x", "1x", "3x", "4x"}) {
        RW_VAR v = MakeVar(name, 0, 0, 1, 0);
        ReadRegister(&v);
    }
    for (const char *name : {"0x", "4x", "4x_double"}) {
        RW_VAR v = MakeVar(name, 0, 0, 2, 1, Bytes({1, 0, 0, 0}));
        WriteRegister(&v);
    }
    ASSERT_EQ(PLC_driver.sendList.size(), 7);
    for (const Protocol &p : PLC_driver.sendList) {
        EXPECT_EQ(p.replyLength, 0);
        EXPECT_EQ(p.replyDataStart, 0);
        EXPECT_EQ(p.replyDataLength, 0);
    }
}

}  // namespace
