// SPDX-License-Identifier: MIT
// One-shot reads: the entries each takes in the driver's queue, and reads beyond its 1024.
#include "once_reads.h"

#include <gtest/gtest.h>

#include "tool_error.h"

namespace {

Variable Once(const char *area, int address, int length) {
    Variable variable;
    variable.name = QStringLiteral("%1:%2").arg(QLatin1String(area)).arg(address);
    variable.station = 1;
    variable.area = QLatin1String(area);
    variable.address = address;
    variable.length = length;
    return variable;
}

struct EntriesCase {
    const char *area;
    int address;
    int length;
    int maxFrameWords;
    int entries;
};

class OnceReadEntriesTest : public ::testing::TestWithParam<EntriesCase> {};

TEST_P(OnceReadEntriesTest, CountsThePiecesTheDriverMakes) {
    const EntriesCase &c = GetParam();
    EXPECT_EQ(OnceReadEntries(Once(c.area, c.address, c.length), c.maxFrameWords), c.entries);
}

INSTANTIATE_TEST_SUITE_P(
    OnceReads, OnceReadEntriesTest,
    ::testing::Values(EntriesCase{"0x", 8, 8, 1, 2},     // 2 bytes: a whole byte asks one more
                      EntriesCase{"0x", 13, 4, 1, 2},    // coils 8 to 23
                      EntriesCase{"1x", 0, 239, 10, 3},  // 30 bytes in pieces of 10
                      EntriesCase{"4x_bit", 3 * 16 + 2, 4, 1, 1},
                      EntriesCase{"3x_bit", 0, 16, 1, 2},  // 16 bits ask two registers
                      EntriesCase{"4x", 0, 300, 125, 3},   // 125, 125, 50
                      EntriesCase{"4x", 0, 1030, 1, 1030}, EntriesCase{"3x_double", 0, 4, 3, 2}));

TEST(OnceReads, MoreEntriesThanTheDriverQueuesAreRefusedUpFront) {
    EXPECT_NO_THROW(CheckOnceReadsFit({Once("4x", 0, 1023), Once("4x", 5000, 1)}, 1));
    EXPECT_THROW(CheckOnceReadsFit({Once("4x", 0, 1030), Once("4x", 5000, 1)}, 1), ToolError);
    EXPECT_THROW(CheckOnceReadsFit({Once("0x", 0, 8 * 1024)}, 1), ToolError);  // 1025 bytes
}

// The driver's AddListOnceReadVar as the host sees it for reads of one piece each: an entry
// beyond 1024 is dropped, the result is the length of the queue.
int queuedEntries = 0;
int FakeAddListOnceReadVar(RW_VAR *) {
    queuedEntries = std::min(queuedEntries + 1, kOnceQueueCapacity);
    return queuedEntries;
}

TEST(OnceReads, EachReadGetsItsOwnOwner) {
    queuedEntries = 0;
    DriverApi api;
    api.addListOnceReadVar = FakeAddListOnceReadVar;
    const std::set<Owner> owners = QueueOnceReads(api, {Once("4x", 0, 2), Once("4x", 9, 3)}, 125);
    EXPECT_EQ(owners, std::set<Owner>({{0, 1}, {0, 2}}));
    EXPECT_EQ(queuedEntries, 2);
}

// Should the driver take fewer entries than the read needs, the run must not wait for a
// completion that cannot come.
TEST(OnceReads, ADriverThatDropsEntriesIsAnError) {
    queuedEntries = kOnceQueueCapacity;
    DriverApi api;
    api.addListOnceReadVar = FakeAddListOnceReadVar;
    EXPECT_THROW(QueueOnceReads(api, {Once("4x", 0, 5)}, 125), ToolError);
}

}  // namespace
