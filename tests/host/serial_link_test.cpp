// SPDX-License-Identifier: MIT
// The serial link on a pseudo-terminal pair, the test playing the slave on the other end: the
// reply deadline while a frame stays open, stops during a wait, the quiet gap after a
// time-out, and what is left on the line before a send.
#include "serial_link.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "pseudo_terminal_test.h"
#include "stop_request.h"

namespace {

using SerialLinkOnPty = PseudoTerminalTest;

const QByteArray kRequest = ":010300000001FB\r\n";
const QByteArray kLateAnswer = ":0103020007F3\r\n";

// A pseudo-terminal pair: the link opens the slave side by name, the test writes to and
// reads from the master side.
class Line {
public:
    Line() {
        char name[128] = {};
        EXPECT_EQ(openpty(&master_, &slave_, name, nullptr, nullptr), 0);
        settings_.device = QString::fromLatin1(name);
        settings_.dataBits = 8;
        settings_.parity = 'N';
        settings_.replyTimeoutMs = 100;
        settings_.charTimeoutMs = 50;
        settings_.quietMs = 100;
        settings_.turnaroundMs = 0;
    }
    ~Line() {
        close(master_);
        close(slave_);
    }
    SerialSettings &settings() { return settings_; }

    void write(const QByteArray &bytes) const {
        ASSERT_EQ(::write(master_, bytes.constData(), bytes.size()), bytes.size());
    }
    // Waits until the request has come through, then writes pieces count times, every
    // interval, starting after delay.
    std::thread playAfterRequest(QByteArray piece, int count, int intervalMs, int delayMs) const {
        return std::thread([this, piece, count, intervalMs, delayMs] {
            char buffer[64];
            if (read(master_, buffer, sizeof buffer) <= 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            for (int i = 0; i < count; ++i) {
                write(piece);
                std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
            }
        });
    }

private:
    int master_ = -1;
    int slave_ = -1;
    SerialSettings settings_;
};

int CountKind(const Exchange &exchange, FrameKind kind) {
    int count = 0;
    for (const StrayFrame &stray : exchange.strays) count += stray.kind == kind ? 1 : 0;
    return count;
}

// "T: 1" and CR every 30 ms for 1.5 s: each ':' opens a frame that the next one breaks. The
// wait for the answer ends at the reply deadline plus the time of the longest frame (100 +
// 534 ms at 9600 baud); what comes after is late, and the line's end of chatter ends the
// quiet wait.
TEST_F(SerialLinkOnPty, AFrameKeptOpenDoesNotHoldTheWaitPastTheReplyDeadline) {
    Line line;
    SerialLink link(line.settings());
    std::thread slave = line.playAfterRequest("T: 1\r", 50, 30, 0);
    const Exchange exchange = link.exchange(kRequest, true);
    slave.join();
    EXPECT_TRUE(exchange.reply.isEmpty());
    EXPECT_FALSE(exchange.interrupted);
    ASSERT_GT(CountKind(exchange, FrameKind::Garbled), 0);
    ASSERT_GT(CountKind(exchange, FrameKind::Late), 0);
    // Garbled while the answer was awaited, late after that: never the other way round.
    bool lateSeen = false;
    for (const StrayFrame &stray : exchange.strays) {
        if (stray.kind == FrameKind::Late) lateSeen = true;
        if (lateSeen) {
            EXPECT_EQ(stray.kind, FrameKind::Late);
        }
    }
}

// After a time-out the link waits for a real quiet gap: 40 late frames 10 ms apart all
// belong to this exchange, none is left for the next request.
TEST_F(SerialLinkOnPty, TheQuietWaitLastsUntilTheLineFallsQuiet) {
    Line line;
    SerialLink link(line.settings());
    std::thread slave = line.playAfterRequest(kLateAnswer, 40, 10, 150);
    const Exchange exchange = link.exchange(kRequest, true);
    slave.join();
    EXPECT_TRUE(exchange.reply.isEmpty());
    EXPECT_EQ(CountKind(exchange, FrameKind::Late), 40);
    EXPECT_EQ(exchange.strays.size(), 40);
}

// Characters already waiting in the kernel when a request goes out are set aside and counted
// as late, never discarded unseen.
TEST_F(SerialLinkOnPty, LeftoversBeforeASendAreSetAsideAsLate) {
    Line line;
    SerialLink link(line.settings());
    line.write(kLateAnswer);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Exchange exchange = link.exchange(":000600000001F9\r\n", false);
    ASSERT_EQ(exchange.strays.size(), 1);
    EXPECT_EQ(exchange.strays[0].kind, FrameKind::Late);
    EXPECT_EQ(exchange.strays[0].frame, kLateAnswer);
}

// A reply time-out of a minute, a silent line, and a stop after 100 ms: the exchange ends,
// marked interrupted.
TEST_F(SerialLinkOnPty, AStopCheckEndsTheWaitForAnAnswer) {
    Line line;
    line.settings().replyTimeoutMs = 60000;
    SerialLink link(line.settings());
    QElapsedTimer clock;
    clock.start();
    link.setStopCheck([&clock] { return clock.elapsed() >= 100; });
    const Exchange exchange = link.exchange(kRequest, true);
    EXPECT_TRUE(exchange.interrupted);
    EXPECT_TRUE(exchange.reply.isEmpty());
}

// The same with SIGTERM, in a child process so that the stop flag stays its own.
TEST_F(SerialLinkOnPty, SigtermEndsAWaitOnALineThatNeverFallsQuiet) {
    EXPECT_EXIT(
        {
            Line line;
            SerialLink link(line.settings());
            InstallStopHandlers();
            std::thread slave = line.playAfterRequest("T: 1\r", 100, 10, 0);
            std::thread stopper([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                kill(getpid(), SIGTERM);
            });
            const Exchange exchange = link.exchange(kRequest, true);
            stopper.join();
            slave.join();
            std::exit(exchange.interrupted && StopRequested() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
