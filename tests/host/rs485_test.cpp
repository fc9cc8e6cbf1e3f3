// SPDX-License-Identifier: MIT
// RS-485 mode: the record handed to the kernel and a refusal's message.
#include "rs485.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tool_error.h"

namespace {

TEST(Rs485Config, RtsHighWhileSendingWithItsDelays) {
    const serial_rs485 config = Rs485Config({true, true, 2, 5});
    EXPECT_EQ(config.flags, unsigned{SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND});
    EXPECT_EQ(config.delay_rts_before_send, 2u);
    EXPECT_EQ(config.delay_rts_after_send, 5u);
}

TEST(Rs485Config, RtsLowWhileSending) {
    const serial_rs485 config = Rs485Config({true, false, 0, 0});
    EXPECT_EQ(config.flags, unsigned{SER_RS485_ENABLED | SER_RS485_RTS_AFTER_SEND});
    EXPECT_EQ(config.delay_rts_before_send, 0u);
    EXPECT_EQ(config.delay_rts_after_send, 0u);
}

TEST(ApplyRs485, HandsTheRecordToThePort) {
    int seenDescriptor = -1;
    serial_rs485 seen{};
    ApplyRs485(7, "/dev/ttyS1", {true, false, 1, 3}, [&](int descriptor, serial_rs485 &c) {
        seenDescriptor = descriptor;
        seen = c;
        return 0;
    });
    EXPECT_EQ(seenDescriptor, 7);
    EXPECT_EQ(seen.flags, unsigned{SER_RS485_ENABLED | SER_RS485_RTS_AFTER_SEND});
    EXPECT_EQ(seen.delay_rts_before_send, 1u);
    EXPECT_EQ(seen.delay_rts_after_send, 3u);
}

TEST(ApplyRs485, ARefusalNamesThePortRs485AndTheReason) {
    try {
        ApplyRs485(7, "/dev/pts/4", {true, true, 0, 0}, [](int, serial_rs485 &) { return ENOTTY; });
        FAIL() << "no error";
    } catch (const ToolError &error) {
        EXPECT_EQ(error.message(),
                  "cannot put serial port /dev/pts/4 in RS-485 mode: Inappropriate ioctl for "
                  "device");
    }
}

TEST(ApplyRs485, ReturnsWhatThePortsDriverAccepted) {
    // A driver that caps the delays at 100 ms and can only raise RTS while sending.
    const Rs485Settings inForce =
        ApplyRs485(7, "/dev/ttyS1", {true, false, 250, 3}, [](int, serial_rs485 &c) {
            c.flags = SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
            c.delay_rts_before_send = 100;
            return 0;
        });
    EXPECT_EQ(Rs485Text(inForce), "RS-485 mode: RTS high while sending, 100 ms before, 3 ms after");
}

TEST(Rs485Text, SaysWhatWasApplied) {
    EXPECT_EQ(Rs485Text({true, false, 1, 3}),
              "RS-485 mode: RTS low while sending, 1 ms before, 3 ms after");
}

}  // namespace
