// SPDX-License-Identifier: MIT
// The poll loop with the driver's static library and the serial link on a pseudo-terminal
// pair, the test playing a line that never falls quiet.
#include "poll_loop.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "driver_reset.h"
#include "pseudo_terminal_test.h"
#include "static_driver.h"

namespace {

using PollLoopOnPty = PseudoTerminalTest;

// The end of --duration ends the quiet wait on a line that prints "T: 1" and CR every 10 ms:
// the transaction is dropped, not handed to the driver as a time-out, and the write in it,
// sent and never answered, is unconfirmed, its register not confirmed.
TEST_F(PollLoopOnPty, TheEndOfTheRunEndsAWaitOnALineThatNeverFallsQuiet) {
    ResetDriverObject();
    int master = -1;
    int slave = -1;
    char name[128] = {};
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    std::atomic<bool> chattering{true};
    std::thread chatter([&] {
        while (chattering) {
            if (write(master, "T: 1\r", 5) != 5) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });

    ComInfo info;
    info.maxFrameWords = 125;
    info.defaultStation = 1;
    info.retryLimit = 3;
    info.workMode = 2;
    ::SetComInfo(&info);
    SerialSettings serial;
    serial.device = QString::fromLatin1(name);
    serial.dataBits = 8;
    serial.parity = 'N';
    serial.replyTimeoutMs = 100;
    serial.quietMs = 50;
    SerialLink link(serial);
    WriteRequest write;
    write.text = QStringLiteral("4x:10=999");
    write.area = QStringLiteral("4x");
    write.address = 10;
    write.station = 1;
    write.value = QByteArray("\xE7\x03", 2);
    write.count = 1;
    WriteQueue writes({write}, 125);
    const DriverApi api = StaticDriver();
    PollLoop loop(api, info, link, RunLimits{{}, 1.0, 0}, writes, LoopSettings{});
    loop.run({}, [](qint64) {});
    chattering = false;
    chatter.join();

    EXPECT_EQ(loop.stats().transactions, 0);
    EXPECT_GT(loop.stats().strayFramesTotal() + loop.stats().noiseCharacters, 0);
    EXPECT_FALSE(loop.stats().interrupted);  // the run's time was up; no signal came
    EXPECT_EQ(writes.results()[0].outcome, WriteOutcome::Unconfirmed);
    Variable register10;
    register10.station = 1;
    register10.area = QStringLiteral("4x");
    register10.address = 10;
    register10.length = 1;
    EXPECT_FALSE(loop.freshness().confirmed(register10));
    close(master);
    close(slave);
    ResetDriverObject();
}

}  // namespace
