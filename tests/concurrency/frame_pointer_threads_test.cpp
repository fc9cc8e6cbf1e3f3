// SPDX-License-Identifier: MIT
// The frame that ComCommunication hands out stays where it is while host threads queue
// writes and one-shot reads, write values and rebuild the cyclic read list: the host keeps
// reading it through the pointer until DataCom removes it. Each host thread adds enough that
// the driver's lists are reallocated several times over (a Qt 6 list keeps its elements in
// one array that moves when it grows); under AddressSanitizer a moved frame is a
// use-after-free, and the checks below see a frame that is no longer the driver's.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "held_frame_fixture.h"
#include "modbus_ascii_master_api.h"

namespace {

constexpr int kQueuedWrites = 900;  // with the request in flight, below the limit of 1024
constexpr int kOnceReads = 600;
constexpr int kRebuilds = 20;
constexpr int kValueWrites = 50;  // SetRegisterData calls; each queues one write while it fits

// What the host sees of its frame while host threads work: how often the pointer it holds
// showed another frame, and how often ComCommunication handed out another pointer.
struct HeldFrameLog {
    int looks = 0;
    int changedFrames = 0;
    int otherPointers = 0;
};

// Polled variables of the rebuilt read list: scattered, so every rebuild makes many requests.
QList<Keyboard> ScatteredVariables(int round) {
    QList<Keyboard> vars;
    for (int i = 0; i < 200; ++i) {
        Keyboard k;
        k.area = QStringLiteral("4x");
        k.address = 1000 * i + round;
        k.length = 1;
        k.station = 1;
        vars.append(k);
    }
    return vars;
}

class FramePointerThreadsTest : public HeldFrameTest {
protected:
    // Runs the host threads to the end while this thread, the communication thread, keeps
    // looking at the frame it holds and asking for the next frame.
    HeldFrameLog HoldFrameWhileHostsWork(Protocol *held, const QByteArray &expectedFrame) {
        std::atomic<int> running{4};
        std::vector<std::thread> hosts;
        hosts.emplace_back([&] {
            for (int i = 0; i < kQueuedWrites; ++i) {
                RW_VAR w = MakeVar("4x", 2000 + i, 1, 1, 1, Bytes({i & 0xFF, 0}));
                w.ownerType = 3;
                w.ownerId = i;
                AddListWriteVar(&w);
            }
            running.fetch_sub(1);
        });
        hosts.emplace_back([&] {
            for (int i = 0; i < kOnceReads; ++i) {
                RW_VAR once = MakeVar("3x", 5000 + 2 * i, 1, 1);
                once.ownerType = 4;
                once.ownerId = i;
                AddListOnceReadVar(&once);
            }
            running.fetch_sub(1);
        });
        hosts.emplace_back([&] {
            for (int round = 0; round < kRebuilds; ++round) {
                QList<Keyboard> vars = ScatteredVariables(round);
                ReCreatReadVarList(&vars);
            }
            running.fetch_sub(1);
        });
        hosts.emplace_back([&] {
            for (int i = 0; i < kValueWrites; ++i) {
                SetRegisterData(QStringLiteral("4x"), 9000 + i, 1, Bytes({i, 0}), 1);
            }
            running.fetch_sub(1);
        });

        HeldFrameLog log;
        do {
            ++log.looks;
            if (held->frame != expectedFrame || held->frameLength != expectedFrame.size()) {
                ++log.changedFrames;
            }
            if (ComCommunication() != held) ++log.otherPointers;
            std::this_thread::yield();
        } while (running.load() > 0);
        for (std::thread &host : hosts) host.join();
        return log;
    }

    // Holds the frame while the host threads work: it must neither change nor move.
    void ExpectFrameHeldThroughHostWork(Protocol *held, const QByteArray &expectedFrame) {
        const HeldFrameLog log = HoldFrameWhileHostsWork(held, expectedFrame);
        EXPECT_GT(log.looks, 0);
        EXPECT_EQ(log.changedFrames, 0);
        EXPECT_EQ(log.otherPointers, 0);
    }
};

TEST_F(FramePointerThreadsTest, WriteFrameStaysWhileHostThreadsQueueAndRebuild) {
    RW_VAR write = MakeVar("4x", 10, 1, 1, 1, Bytes({0x34, 0x12}));
    AddListWriteVar(&write);
    const QByteArray frame(":0106000A1234A9\r\n");
    Protocol *held = TakeFrame(frame);
    ASSERT_NE(held, nullptr);
    ExpectFrameHeldThroughHostWork(held, frame);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);  // no host call queues a frame
    EXPECT_EQ(PLC_driver.writeList.size(), 1 + kQueuedWrites + kValueWrites);
    EXPECT_EQ(PLC_driver.onceReadList.size(), kOnceReads);
    EXPECT_EQ(PLC_driver.readList.size(), 200);

    // A rejected reply keeps the frame for the retry, where it was.
    EXPECT_EQ(Reject(), 0);
    EXPECT_EQ(ComCommunication(), held);
    EXPECT_EQ(held->frame, frame);
    EXPECT_EQ(Answer(held), 1);
    EXPECT_EQ(slave->holdingRegisters[10], 0x1234);
    EXPECT_EQ(PLC_driver.writeList.size(), kQueuedWrites + kValueWrites);
}

// The frame of a cyclic read carries its own copy of the request: rebuilding the read list
// it came from leaves the frame, and the store of its reply, as they were.
TEST_F(FramePointerThreadsTest, CyclicReadFrameStaysWhileItsReadListIsRebuilt) {
    slave->holdingRegisters[500] = 0x4243;
    RW_VAR cyclic = MakeVar("4x", 500, 1, 1);
    AddListReadVar(&cyclic);
    const QByteArray frame(":010301F4000106\r\n");
    Protocol *held = TakeFrame(frame);
    ASSERT_NE(held, nullptr);
    ExpectFrameHeldThroughHostWork(held, frame);
    EXPECT_EQ(PLC_driver.readList.first().address, 19);  // the last rebuild's first request

    EXPECT_EQ(responder.Answer(frame), QByteArray(":010302424375\r\n"));
    EXPECT_EQ(Answer(held), 1);
    QByteArray value;
    GetRegisterData(QStringLiteral("4x"), 500, 1, value, 1);
    EXPECT_EQ(value, Bytes({0x43, 0x42}));
}

TEST_F(FramePointerThreadsTest, BothFramesOfABitWriteStayWhileHostThreadsQueueAndRebuild) {
    slave->holdingRegisters[0x100] = 0x0001;
    RW_VAR bit = MakeVar("4x_bit", 0x1005, 1, 1, 1, Bytes({1}));
    AddListWriteVar(&bit);

    const QByteArray readFrame(":010301000001FA\r\n");
    Protocol *readHalf = TakeFrame(readFrame);
    ASSERT_NE(readHalf, nullptr);
    ASSERT_EQ(PLC_driver.sendList.size(), 2);
    ExpectFrameHeldThroughHostWork(readHalf, readFrame);
    EXPECT_EQ(PLC_driver.sendList.size(), 2);

    EXPECT_EQ(Reject(), 0);
    EXPECT_EQ(ComCommunication(), readHalf);
    EXPECT_EQ(responder.Answer(readFrame), QByteArray(":0103020001F9\r\n"));
    EXPECT_EQ(Answer(readHalf), 1);

    // The write half, completed with the register's value, is the next frame.
    const QByteArray writeFrame(":010601000021D7\r\n");
    Protocol *writeHalf = TakeFrame(writeFrame);
    ASSERT_NE(writeHalf, nullptr);
    ExpectFrameHeldThroughHostWork(writeHalf, writeFrame);
    EXPECT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(Answer(writeHalf), 1);
    EXPECT_EQ(slave->holdingRegisters[0x100], 0x0021);
    EXPECT_TRUE(PLC_driver.sendList.isEmpty());
}

}  // namespace
