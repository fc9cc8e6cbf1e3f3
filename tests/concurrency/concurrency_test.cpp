// SPDX-License-Identifier: MIT
// One thread polls a test slave while host threads read values, write values and queue
// write requests at the same time. Every loop is bounded: the test ends by itself even if
// the driver loses a request, and then fails instead of hanging.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "driver_fixture.h"
#include "modbus_ascii_master_api.h"
#include "test_responder.h"

namespace {

constexpr int kIterations = 300;  // queued requests, and reads
// Host write iterations: three requests each. With the queued ones that makes 600 requests
// at most, below the write list's limit of 1024, so none can be dropped.
constexpr int kHostWrites = 100;
constexpr int kQueuedOwnerType = 1;     // AddListWriteVar requests: owner (1, i), all distinct
constexpr int kHostWriteOwnerType = 0;  // SetRegisterData requests: owner (0, 0)

// Completion reports, counted per owner. The callback runs with the driver's list lock held,
// so it only records; it never calls back into the driver.
std::mutex gCallbackMutex;
std::map<std::pair<int, int>, int> gCallbacksByOwner;
std::atomic<int> gQueuedCompletions{0};
std::atomic<int> gFailedCompletions{0};

int CountingCallback(int deviceId, int ownerType, int ownerId, int status) {
    (void)deviceId;
    {
        std::lock_guard<std::mutex> lock(gCallbackMutex);
        ++gCallbacksByOwner[{ownerType, ownerId}];
    }
    if (status != 1) gFailedCompletions.fetch_add(1);
    if (ownerType == kQueuedOwnerType) gQueuedCompletions.fetch_add(1);
    return 0;
}

class ConcurrencyTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        RegistCallBackFuncIntf(&CountingCallback, 0);
        std::lock_guard<std::mutex> lock(gCallbackMutex);
        gCallbacksByOwner.clear();
        gQueuedCompletions = 0;
        gFailedCompletions = 0;
    }
};

TEST_F(ConcurrencyTest, PollingWhileHostThreadsReadWriteAndQueue) {
    TestResponder responder;
    SlaveStation &slave = responder.Station(1);
    // The 32-bit value at 300/301 always has equal halves, on the slave and in every write.
    slave.holdingRegisters[300] = 0x0101;
    slave.holdingRegisters[301] = 0x0101;
    RW_VAR cyclicDouble = MakeVar("4x_double", 300, 1, 2);
    RW_VAR cyclicCoils = MakeVar("0x", 0, 1, 1);
    AddListReadVar(&cyclicDouble);
    AddListReadVar(&cyclicCoils);

    std::atomic<bool> hostsDone{false};
    std::atomic<int> tornReads{0};
    std::atomic<int> hostThreadsRunning{3};
    // The host threads start together once the poll loop is running, so that they overlap.
    std::atomic<bool> go{false};
    auto waitForStart = [&go] {
        for (int i = 0; i < 1000000 && !go.load(); ++i) std::this_thread::yield();
    };

    // Reads the 32-bit value: both halves must always be equal.
    std::thread reader([&] {
        waitForStart();
        for (int i = 0; i < kIterations * 4; ++i) {
            QByteArray out;
            GetRegisterData(QStringLiteral("4x_double"), 300, 1, out, 2);
            if (out.size() != 4 || out.at(0) != out.at(2) || out.at(1) != out.at(3)) {
                tornReads.fetch_add(1);
            }
            QByteArray bits;
            GetRegisterData(QStringLiteral("0x"), 0, 1, bits, 8);
            std::this_thread::yield();
        }
        hostThreadsRunning.fetch_sub(1);
    });

    // Writes through SetRegisterData: the 32-bit value, a register and a coil.
    std::thread writer([&] {
        waitForStart();
        for (int i = 0; i < kHostWrites; ++i) {
            const int half = 0x0101 * (i + 1);
            const char lo = static_cast<char>(half & 0xFF);
            const char hi = static_cast<char>(half >> 8);
            QByteArray value;
            value.append(lo).append(hi).append(lo).append(hi);
            SetRegisterData(QStringLiteral("4x_double"), 300, 1, value, 2);
            SetRegisterData(QStringLiteral("4x"), 400 + i % 4, 1, Bytes({i & 0xFF, 0x40}), 1);
            SetRegisterData(QStringLiteral("0x"), i % 8, 1, Bytes({i % 2}), 1);
            std::this_thread::yield();
        }
        hostThreadsRunning.fetch_sub(1);
    });

    // Queues write requests of distinct owners, some of them bit-in-register writes. Each
    // host record is dropped right after it was queued, as a runtime does, so the strings
    // the driver keeps were last shared with this thread.
    std::thread queuer([&] {
        waitForStart();
        for (int i = 0; i < kIterations; ++i) {
            RW_VAR w = i % 3 == 0 ? MakeVar("4x_bit", 0x2000 + (i % 16), 1, 1, 1, Bytes({1}))
                                  : MakeVar("4x", 1000 + i, 1, 1, 1, Bytes({i & 0xFF, 0x00}));
            w.ownerType = kQueuedOwnerType;
            w.ownerId = i;
            AddListWriteVar(&w);
            std::this_thread::yield();
        }
        hostThreadsRunning.fetch_sub(1);
    });

    // The communication thread: polls until the hosts are done and every queued write was
    // reported, within a time limit. It yields every turn, so that on a loaded machine the
    // host threads still make progress however fast the turns are.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(45);
    while (std::chrono::steady_clock::now() < deadline) {
        PollOnce(responder);
        go = true;
        std::this_thread::yield();
        if (hostThreadsRunning.load() == 0) {
            hostsDone = true;
            if (gQueuedCompletions.load() == kIterations) break;
        }
    }
    reader.join();
    writer.join();
    queuer.join();

    // Only this thread is left: drain the host writes still queued, bounded.
    for (int i = 0; i < 20000 && PLC_driver.writeList.size() > 0; ++i) PollOnce(responder);

    EXPECT_TRUE(hostsDone.load());
    EXPECT_EQ(tornReads.load(), 0);
    EXPECT_EQ(responder.MalformedFrames(), 0);
    EXPECT_EQ(gFailedCompletions.load(), 0);
    EXPECT_EQ(gQueuedCompletions.load(), kIterations);
    EXPECT_EQ(PLC_driver.writeList.size(), 0);
    {
        std::lock_guard<std::mutex> lock(gCallbackMutex);
        for (int i = 0; i < kIterations; ++i) {
            EXPECT_EQ((gCallbacksByOwner[{kQueuedOwnerType, i}]), 1) << "owner " << i;
        }
        // Host writes share one owner: at least one report, never more than requests made.
        const int hostReports = gCallbacksByOwner[{kHostWriteOwnerType, 0}];
        EXPECT_GE(hostReports, 1);
        EXPECT_LE(hostReports, 3 * kHostWrites);
    }

    // The slave holds the last value of every writer.
    const uint16_t lastHalf = static_cast<uint16_t>(0x0101 * kHostWrites);
    EXPECT_EQ(slave.holdingRegisters[300], lastHalf);
    EXPECT_EQ(slave.holdingRegisters[301], lastHalf);
    for (int r = 0; r < 4; ++r) {
        const int lastI = kHostWrites - 4 + r;  // kHostWrites is a multiple of 4
        EXPECT_EQ(slave.holdingRegisters[400 + r], 0x4000 | (lastI & 0xFF)) << "register " << r;
    }
    for (int i = 0; i < kIterations; ++i) {
        if (i % 3 != 0) {
            EXPECT_EQ(slave.holdingRegisters[1000 + i], i & 0xFF) << "register " << 1000 + i;
        }
    }
    // Bit writes set bits 0..15 of register 0x200 (i % 16 over multiples of 3 covers all).
    EXPECT_EQ(slave.holdingRegisters[0x200], 0xFFFF);
    for (int c = 0; c < 8; ++c) EXPECT_EQ(slave.coils[c], c % 2) << "coil " << c;

    // After the drain, the image agrees with the slave for the 32-bit value.
    PollOnce(responder);
    PollOnce(responder);
    QByteArray out;
    GetRegisterData(QStringLiteral("4x_double"), 300, 1, out, 2);
    const char lo = static_cast<char>(lastHalf & 0xFF);
    const char hi = static_cast<char>(lastHalf >> 8);
    EXPECT_EQ(out, QByteArray().append(lo).append(hi).append(lo).append(hi));
}

}  // namespace
