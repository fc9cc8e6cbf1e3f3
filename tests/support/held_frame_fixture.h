// SPDX-License-Identifier: MIT
// Fixture of the frame pointer tests: a test slave at station 1, and the steps of a host that
// holds the frame ComCommunication handed out until DataCom has dealt with it.
#ifndef MODBUS_TEST_HELD_FRAME_FIXTURE_H
#define MODBUS_TEST_HELD_FRAME_FIXTURE_H

#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "modbus_ascii_master_api.h"
#include "test_responder.h"

class HeldFrameTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        slave = &responder.Station(1);
    }

    // The next frame, checked against the one expected; null when none came.
    static Protocol *TakeFrame(const QByteArray &expected) {
        Protocol *held = ComCommunication();
        EXPECT_NE(held, nullptr);
        if (held != nullptr) {
            EXPECT_EQ(held->frame, expected);
        }
        return held;
    }

    // Hands the held frame's answer from the test slave back to the driver.
    int Answer(Protocol *held) {
        QByteArray reply = responder.Answer(held->frame.left(held->frameLength));
        return DataCom(&reply);
    }

    static int Reject() {
        QByteArray silence;
        return DataCom(&silence);
    }

    TestResponder responder;
    SlaveStation *slave = nullptr;
};

#endif  // MODBUS_TEST_HELD_FRAME_FIXTURE_H
