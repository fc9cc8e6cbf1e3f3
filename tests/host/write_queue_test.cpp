// SPDX-License-Identifier: MIT
// The host's write queue: cutting writes into requests, offering them while the driver's
// queue has room, and the outcome of each.
#include "write_queue.h"

#include <gtest/gtest.h>

#include <vector>

#include "tool_error.h"

namespace {

// The driver's AddListWriteVar as the queue sees it: keeps the requests and returns the
// length of its list.
std::vector<RW_VAR> &DriverList() {
    static std::vector<RW_VAR> list;
    return list;
}

int FakeAddListWriteVar(RW_VAR *request) {
    DriverList().push_back(*request);
    return static_cast<int>(DriverList().size());
}

WriteRequest Write(const char *area, int address, int station, QByteArray value, int count) {
    WriteRequest write;
    write.text = QStringLiteral("%1:%2").arg(QLatin1String(area)).arg(address);
    write.area = QLatin1String(area);
    write.address = address;
    write.station = station;
    write.value = value;
    write.count = count;
    return write;
}

// count registers whose values are 0, 1, 2 ... (two bytes each, low byte first).
QByteArray Registers(int count) {
    QByteArray bytes;
    for (int i = 0; i < count; ++i) bytes.append(static_cast<char>(i)).append('\0');
    return bytes;
}

class WriteQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        DriverList().clear();
        api_.addListWriteVar = FakeAddListWriteVar;
    }

    // Hands the driver list's head back as finished, as DataCom does with its callback.
    void finishHead(WriteQueue &queue, int status, int result) {
        const RW_VAR head = DriverList().front();
        DriverList().erase(DriverList().begin());
        queue.complete({0, head.ownerType, head.ownerId, status}, result);
    }

    Exchange answered() const {
        Exchange exchange;
        exchange.reply = ":0106000A1234A9\r\n";
        return exchange;
    }

    DriverApi api_;
};

TEST_F(WriteQueueTest, CoilsAndRegisterBitsGoOneRequestPerBit) {
    WriteQueue queue({Write("0x", 8, 1, QByteArray("\x01\x00\x01", 3), 3)}, 125);
    queue.offer(api_);
    ASSERT_EQ(DriverList().size(), 3u);
    const int addresses[] = {8, 9, 10};
    const char values[] = {1, 0, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(DriverList()[i].address, addresses[i]);
        EXPECT_EQ(DriverList()[i].count, 1);
        EXPECT_EQ(DriverList()[i].value, QByteArray(1, values[i]));
        EXPECT_EQ(DriverList()[i].direction, 1);
        EXPECT_EQ(DriverList()[i].ownerType, 0);
        EXPECT_EQ(DriverList()[i].ownerId, WriteQueue::kFirstOwnerId + i);
    }
}

TEST_F(WriteQueueTest, RegisterWritesAreCutAtTheGivenSize) {
    WriteQueue queue({Write("4x", 100, 1, Registers(250), 250)}, 123);
    queue.offer(api_);
    ASSERT_EQ(DriverList().size(), 3u);
    EXPECT_EQ(DriverList()[0].address, 100);
    EXPECT_EQ(DriverList()[0].count, 123);
    EXPECT_EQ(DriverList()[1].address, 223);
    EXPECT_EQ(DriverList()[1].count, 123);
    EXPECT_EQ(DriverList()[1].value.left(2), QByteArray("\x7B\x00", 2));  // register 123
    EXPECT_EQ(DriverList()[2].address, 346);
    EXPECT_EQ(DriverList()[2].count, 4);
    EXPECT_EQ(DriverList()[2].value.size(), 8);
}

TEST_F(WriteQueueTest, ThirtyTwoBitValuesAreNeverCutBetweenFrames) {
    WriteQueue queue({Write("4x_double", 0, 1, Registers(8), 8)}, 3);
    queue.offer(api_);
    ASSERT_EQ(DriverList().size(), 4u);
    for (const RW_VAR &request : DriverList()) EXPECT_EQ(request.count, 2);
    EXPECT_EQ(DriverList()[3].address, 6);
}

TEST_F(WriteQueueTest, AThirtyTwoBitValueInPiecesOfOneRegisterIsRefused) {
    const WriteRequest write = Write("4x_double", 0, 1, Registers(2), 2);
    try {
        CheckWritesFit({write}, 1);
        FAIL() << "no error";
    } catch (const ToolError &error) {
        EXPECT_EQ(error.message(),
                  "--write 4x_double:0: a 32-bit value takes 2 registers of one frame, more than "
                  "--max-frame-words 1 allows");
    }
    EXPECT_THROW(WriteQueue({write}, 1), ToolError);
    EXPECT_NO_THROW(CheckWritesFit({write}, 2));
    EXPECT_NO_THROW(CheckWritesFit({Write("4x", 0, 1, Registers(2), 2)}, 1));
}

TEST_F(WriteQueueTest, RequestsWaitForRoomInTheDriversQueue) {
    WriteQueue queue({Write("0x", 0, 1, QByteArray(1030, '\x01'), 1030)}, 125);
    queue.offer(api_);
    EXPECT_EQ(DriverList().size(), 1024u);
    finishHead(queue, 1, 1);
    finishHead(queue, 1, 1);
    queue.offer(api_);
    EXPECT_EQ(DriverList().size(), 1024u);
    EXPECT_EQ(DriverList().back().address, 1025);
    EXPECT_FALSE(queue.finished());
}

TEST_F(WriteQueueTest, EachRequestEndsWithItsOwnOutcome) {
    WriteQueue queue({Write("4x", 1, 1, Registers(1), 1), Write("4x", 2, 1, Registers(1), 1),
                      Write("4x", 3, 1, Registers(1), 1), Write("4x", 4, 0, Registers(1), 1)},
                     125);
    queue.offer(api_);
    const std::vector<RW_VAR> requests = DriverList();
    queue.noteAttempt(requests[0], answered());
    finishHead(queue, 1, 1);  // acknowledged
    queue.noteAttempt(requests[1], Exchange{});
    finishHead(queue, 2, 41);  // sent, never answered
    Exchange exception;
    exception.reply = ":01860277\r\n";
    exception.replyKind = FrameKind::Exception;
    queue.noteAttempt(requests[2], exception);
    finishHead(queue, 2, 71);  // refused by the slave
    queue.noteAttempt(requests[3], Exchange{});
    finishHead(queue, 1, 1);  // broadcast
    EXPECT_TRUE(queue.finished());

    const QList<WriteResult> results = queue.results();
    ASSERT_EQ(results.size(), 4);
    const WriteOutcome expected[] = {WriteOutcome::Done, WriteOutcome::Unconfirmed,
                                     WriteOutcome::Failed, WriteOutcome::Sent};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(results[i].outcome, expected[i]) << i;
    ASSERT_EQ(results[1].notDone.size(), 1);
    EXPECT_EQ(results[1].notDone[0].code, 41);
    EXPECT_EQ(results[2].notDone[0].code, 71);
    EXPECT_TRUE(results[3].notDone.isEmpty());
}

// An answer the driver rejected (here its LRC in lower case, code 11) came from a slave that
// got the write: it may have carried it out, so the write is not reported failed.
TEST_F(WriteQueueTest, AnAnswerTheDriverRejectedLeavesTheWriteUnconfirmed) {
    WriteQueue queue({Write("4x", 10, 1, Registers(2).mid(2), 1)}, 125);
    queue.offer(api_);
    Exchange lowerCase;
    lowerCase.reply = ":0106000a0001ee\r\n";
    queue.noteAttempt(DriverList().front(), lowerCase);
    finishHead(queue, 2, 11);
    EXPECT_EQ(queue.results()[0].outcome, WriteOutcome::Unconfirmed);
}

// Refused by an exception once, unanswered once: the unanswered attempt may have landed.
TEST_F(WriteQueueTest, AnExceptionAfterAnUnansweredAttemptLeavesTheWriteUnconfirmed) {
    WriteQueue queue({Write("4x", 10, 1, Registers(1), 1)}, 125);
    queue.offer(api_);
    queue.noteAttempt(DriverList().front(), Exchange{});
    Exchange exception;
    exception.reply = ":01860475\r\n";
    exception.replyKind = FrameKind::Exception;
    queue.noteAttempt(DriverList().front(), exception);
    finishHead(queue, 2, 71);
    EXPECT_EQ(queue.results()[0].outcome, WriteOutcome::Unconfirmed);
}

TEST_F(WriteQueueTest, ABitWriteWhoseReadHalfFailedDidNotReachTheSlave) {
    WriteQueue queue({Write("4x_bit", 0x1005, 1, QByteArray(1, '\x01'), 1)}, 125);
    queue.offer(api_);
    RW_VAR readHalf = DriverList().front();
    readHalf.direction = 0;
    readHalf.bitWriteMark = -1;
    queue.noteAttempt(readHalf, Exchange{});
    finishHead(queue, 2, 41);
    EXPECT_EQ(queue.results()[0].outcome, WriteOutcome::Failed);
}

TEST_F(WriteQueueTest, AWriteTakesTheWorstOutcomeOfItsRequests) {
    WriteQueue queue({Write("0x", 0, 1, QByteArray(3, '\x01'), 3)}, 125);
    queue.offer(api_);
    queue.noteAttempt(DriverList().front(), answered());
    finishHead(queue, 1, 1);
    queue.noteAttempt(DriverList().front(), Exchange{});
    // The run ends: one request was sent and never answered, one never sent.
    const WriteResult result = queue.results()[0];
    EXPECT_EQ(result.outcome, WriteOutcome::Failed);
    EXPECT_EQ(result.requests.value(WriteOutcome::Done), 1);
    EXPECT_EQ(result.requests.value(WriteOutcome::Unconfirmed), 1);
    EXPECT_EQ(result.requests.value(WriteOutcome::Failed), 1);
    ASSERT_EQ(result.notDone.size(), 2);
    EXPECT_EQ(result.notDone[0].code, 0);
}

}  // namespace
