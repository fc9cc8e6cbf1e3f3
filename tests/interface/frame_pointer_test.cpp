// SPDX-License-Identifier: MIT
// The frame that ComCommunication hands out stays valid, at the same address and with the
// same contents, until DataCom removes it: across retries, across variables added on the
// communication thread, and while a host holds its own copy of sendList (a copy shares the
// list's storage until one side changes it; the driver must not be the side that moves the
// frame the host is sending). Run under AddressSanitizer, a moved frame is a use-after-free.
#include <gtest/gtest.h>

#include "held_frame_fixture.h"
#include "modbus_ascii_master_api.h"

namespace {

using FramePointerTest = HeldFrameTest;

TEST_F(FramePointerTest, RetriedFrameIsTheSameFrameAtTheSameAddress) {
    info.retryLimit = 5;
    RW_VAR write = MakeVar("4x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    AddListWriteVar(&write);
    Protocol *held = TakeFrame(":0106000A1234A9\r\n");
    ASSERT_NE(held, nullptr);
    for (int retry = 0; retry < 5; ++retry) {
        EXPECT_EQ(Reject(), 0);
        EXPECT_EQ(ComCommunication(), held) << "retry " << retry;
        EXPECT_EQ(held->frame, QByteArray(":0106000A1234A9\r\n")) << "retry " << retry;
    }
    EXPECT_EQ(Answer(held), 1);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
}

TEST_F(FramePointerTest, VariablesAddedOnTheCommunicationThreadLeaveTheFrameInPlace) {
    RW_VAR cyclic = MakeVar("4x", 500, 1, 1);
    AddListReadVar(&cyclic);
    Protocol *held = TakeFrame(":010301F4000106\r\n");
    ASSERT_NE(held, nullptr);
    for (int i = 0; i < 300; ++i) {
        RW_VAR more = MakeVar("4x", 600 + i, 1, 1);
        AddListReadVar(&more);
        RW_VAR once = MakeVar("1x", 8 * i, 1, 8);
        AddListOnceReadVar(&once);
    }
    EXPECT_EQ(ComCommunication(), held);
    EXPECT_EQ(held->frame, QByteArray(":010301F4000106\r\n"));
    EXPECT_EQ(held->var.address, 500);
    EXPECT_EQ(Answer(held), 1);
    EXPECT_EQ(PLC_driver.readList.last().address, 500);  // rotated to the end
}

TEST_F(FramePointerTest, HostCopyOfSendListLeavesTheHeldFrameWithTheDriver) {
    RW_VAR write = MakeVar("4x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    AddListWriteVar(&write);
    Protocol *held = TakeFrame(":0106000A1234A9\r\n");
    ASSERT_NE(held, nullptr);
    {
        const QList<Protocol> hostCopy = PLC_driver.sendList;
        EXPECT_EQ(ComCommunication(), held);
        EXPECT_EQ(Reject(), 0);  // the reply path reads the frame while the copy shares it
        EXPECT_EQ(ComCommunication(), held);
        ASSERT_EQ(hostCopy.size(), 1);
        EXPECT_EQ(hostCopy.first().frame, QByteArray(":0106000A1234A9\r\n"));
    }
    // The copy is gone; the frame the host holds must still be the driver's.
    EXPECT_EQ(ComCommunication(), held);
    EXPECT_EQ(held->frame, QByteArray(":0106000A1234A9\r\n"));
    EXPECT_EQ(&PLC_driver.sendList.constFirst(), held);
    EXPECT_EQ(Answer(held), 1);
    EXPECT_EQ(slave->holdingRegisters[10], 0x1234);
}

TEST_F(FramePointerTest, HostCopyDuringABitWriteKeepsItsOwnFramesAndTheDriverItsOwn) {
    slave->holdingRegisters[0x100] = 0x0001;
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    AddListWriteVar(&bit);
    Protocol *readHalf = TakeFrame(":010301000001FA\r\n");
    ASSERT_NE(readHalf, nullptr);

    QList<Protocol> hostCopy = PLC_driver.sendList;
    EXPECT_EQ(Reject(), 0);
    EXPECT_EQ(ComCommunication(), readHalf);
    EXPECT_EQ(Answer(readHalf), 1);  // completes the write half in the driver's list

    Protocol *writeHalf = TakeFrame(":010601000021D7\r\n");
    ASSERT_NE(writeHalf, nullptr);
    ASSERT_EQ(hostCopy.size(), 2);
    EXPECT_EQ(hostCopy.at(0).frame, QByteArray(":010301000001FA\r\n"));
    EXPECT_EQ(hostCopy.at(1).frame, QByteArray(":01060100000000\r\n"));  // still the placeholder

    hostCopy.clear();
    EXPECT_EQ(ComCommunication(), writeHalf);
    EXPECT_EQ(writeHalf->frame, QByteArray(":010601000021D7\r\n"));
    EXPECT_EQ(Answer(writeHalf), 1);
    EXPECT_EQ(slave->holdingRegisters[0x100], 0x0021);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
}

}  // namespace
