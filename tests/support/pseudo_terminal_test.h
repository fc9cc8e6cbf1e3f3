// SPDX-License-Identifier: MIT
// Tests that make a pseudo-terminal pair themselves. qemu-user cannot make one for the program
// it runs, so a cross build run under the emulator (MODBUS_TEST_EMULATED set) skips them; the
// end-to-end tests still run the tool itself on pseudo-terminals made natively.
#ifndef MODBUS_TEST_PSEUDO_TERMINAL_TEST_H
#define MODBUS_TEST_PSEUDO_TERMINAL_TEST_H

#include <gtest/gtest.h>

#include <cstdlib>

class PseudoTerminalTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::getenv("MODBUS_TEST_EMULATED") != nullptr) {
            GTEST_SKIP() << "an emulated program cannot make a pseudo-terminal pair";
        }
    }
};

#endif  // MODBUS_TEST_PSEUDO_TERMINAL_TEST_H
