// SPDX-License-Identifier: MIT
// A request is built in the buffer of the frame answered before it: every frame still holds
// exactly its own characters, and a frame a host kept a copy of is never written over.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>

#include "driver_fixture.h"

namespace {

const QByteArray kReadAt1000(":010303E8000110\r\n");
const QByteArray kReadAt0(":010300000001FB\r\n");
const QByteArray kOneRegisterReply(":0103021234B4\r\n");
// Ten registers of 0x1111 to holding register 100 of station 1, and its acknowledgement.
const QByteArray kWriteOfTen(":01100064000A14" + QByteArray(40, '1') + "19\r\n");
const QByteArray kWriteOfTenAck(":01100064000A81\r\n");

class FrameBufferTest : public DriverTest {
protected:
    void PollTwoRegisters() {
        RW_VAR at1000 = MakeVar("4x", 1000, 1, 1);
        RW_VAR at0 = MakeVar("4x", 0, 1, 1);
        AddListReadVar(&at1000);
        AddListReadVar(&at0);
    }
    void QueueWriteOfTen() {
        RW_VAR write = MakeVar("4x", 100, 1, 10, 1, QByteArray(20, '\x11'));
        AddListWriteVar(&write);
    }
    static QByteArray Answer(const QByteArray &reply) {
        QByteArray copy = reply;
        EXPECT_EQ(DataCom(&copy), 1);
        return copy;
    }
};

TEST_F(FrameBufferTest, EachCyclicFrameHoldsExactlyItsOwnCharacters) {
    PollTwoRegisters();
    ASSERT_EQ(ComCommunication()->frame, kReadAt1000);
    Answer(kOneRegisterReply);
    const Protocol *next = ComCommunication();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->frame, kReadAt0);
    EXPECT_EQ(next->frameLength, 17);
    Answer(kOneRegisterReply);
    EXPECT_EQ(ComCommunication()->frame, kReadAt1000);
}

TEST_F(FrameBufferTest, AFrameTheHostCopiedKeepsItsCharacters) {
    PollTwoRegisters();
    const QByteArray kept = ComCommunication()->frame;
    Answer(kOneRegisterReply);
    EXPECT_EQ(ComCommunication()->frame, kReadAt0);
    EXPECT_EQ(kept, kReadAt1000);
}

TEST_F(FrameBufferTest, AListTheHostCopiedKeepsItsFrame) {
    PollTwoRegisters();
    ComCommunication();
    const QList<Protocol> kept = PLC_driver.sendList;
    Answer(kOneRegisterReply);
    EXPECT_EQ(ComCommunication()->frame, kReadAt0);
    ASSERT_EQ(kept.size(), 1);
    EXPECT_EQ(kept.first().frame, kReadAt1000);
    EXPECT_EQ(kept.first().frameLength, 17);
}

// A short frame in the buffer of a long one, then a long one in it again.
TEST_F(FrameBufferTest, FramesOfOtherLengthsTakeExactlyTheirSize) {
    PollTwoRegisters();
    QueueWriteOfTen();
    const Protocol *write = ComCommunication();
    ASSERT_NE(write, nullptr);
    ASSERT_EQ(write->frame, kWriteOfTen);
    EXPECT_EQ(write->frameLength, 59);
    Answer(kWriteOfTenAck);

    const Protocol *read = ComCommunication();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->frame, kReadAt1000);
    EXPECT_EQ(read->frame.size(), 17);
    EXPECT_EQ(read->frameLength, 17);
    Answer(kOneRegisterReply);

    QueueWriteOfTen();
    write = ComCommunication();
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->frame, kWriteOfTen);
    EXPECT_EQ(write->frameLength, 59);
}

}  // namespace
