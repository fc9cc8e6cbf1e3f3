// SPDX-License-Identifier: MIT
// Which cached values the host vouches for after reads and writes.
#include "value_freshness.h"

#include <gtest/gtest.h>

namespace {

Variable Tag(const char *area, int address, int length) {
    Variable variable;
    variable.station = 1;
    variable.area = QLatin1String(area);
    variable.address = address;
    variable.length = length;
    return variable;
}

RW_VAR Request(int direction, const char *area, int bitWriteMark = 0) {
    RW_VAR request;
    request.direction = direction;
    request.area = QLatin1String(area);
    request.bitWriteMark = bitWriteMark;
    return request;
}

// Frames of station 1 (LRCs worked out by hand): registers 10 to 14, one register 10, the
// write of 0x1234 to register 10, and coils 10 to 19.
const QByteArray kReadRegisters10To14 = ":0103000A0005ED\r\n";
const QByteArray kReadRegister10 = ":0103000A0001F1\r\n";
const QByteArray kWriteRegister10 = ":0106000A1234A9\r\n";
const QByteArray kReadCoils10To19 = ":0101000A000AEA\r\n";

TEST(ValueFreshness, NothingIsConfirmedBeforeItIsRead) {
    ValueFreshness freshness;
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
}

TEST(ValueFreshness, AnAcceptedReadConfirmsItsSpanOnly) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
    EXPECT_TRUE(freshness.confirmed(Tag("4x_bit", 10 * 16 + 3, 13)));
    EXPECT_FALSE(freshness.confirmed(Tag("4x_bit", 10 * 16 + 3, 14)));
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 2)));
    EXPECT_FALSE(freshness.confirmed(Tag("3x", 10, 1)));
    freshness.note(kReadRegisters10To14, Request(0, "4x_double"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("4x_double", 12, 2)));
    EXPECT_FALSE(freshness.confirmed(Tag("4x_double", 14, 2)));
    freshness.note(kReadCoils10To19, Request(0, "0x"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("0x", 12, 8)));
    EXPECT_FALSE(freshness.confirmed(Tag("0x", 12, 9)));
}

TEST(ValueFreshness, AnAbandonedReadTakesBackItsConfirmation) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.note(kReadRegister10, Request(0, "4x"), 0);  // retried: no change yet
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.note(kReadRegister10, Request(0, "4x"), 41);
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
}

TEST(ValueFreshness, AWriteConfirmsOnlyWhenAcknowledged) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.handedOut(kWriteRegister10, Request(1, "4x"));
    freshness.note(kWriteRegister10, Request(1, "4x"), 41);
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.note(kReadRegister10, Request(0, "4x"), 1);  // the link is up again
    freshness.handedOut(kWriteRegister10, Request(1, "4x"));
    freshness.note(kWriteRegister10, Request(1, "4x"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
}

// From the moment the frame is built the cache holds the written value: retries and a run
// stopped among them show it unconfirmed.
TEST(ValueFreshness, AWriteIsUnconfirmedWhileItIsRetried) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.handedOut(kWriteRegister10, Request(1, "4x"));
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.note(kWriteRegister10, Request(1, "4x"), 0);
    freshness.handedOut(kWriteRegister10, Request(1, "4x"));
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
}

// After an abandoned request the driver builds the next write frame without touching its
// cache, so the acknowledgement vouches for a value the cache does not hold.
TEST(ValueFreshness, AWriteBuiltAfterAnAbandonedRequestIsNotConfirmedByItsAcknowledgement) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.note(":050300000001F7\r\n", Request(0, "4x"), 41);  // station 5 abandoned
    freshness.handedOut(kWriteRegister10, Request(1, "4x"));
    freshness.note(kWriteRegister10, Request(1, "4x"), 1);
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
}

// Every slave carries out a broadcast; the driver caches it for station 0 only.
TEST(ValueFreshness, ABroadcastWriteLeavesTheSpanUnconfirmedAtEveryStation) {
    ValueFreshness freshness(true);
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.note(kReadRegisters10To14, Request(0, "4x"), 1);
    freshness.handedOut(":0006000A1234AA\r\n", Request(1, "4x"));
    freshness.note(":0006000A1234AA\r\n", Request(1, "4x"), 1);
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 11, 4)));
}

TEST(ValueFreshness, ABitWriteLeavesTheCachedRegisterUnconfirmed) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x_bit", -1), 1);  // its read half
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.handedOut(kWriteRegister10, Request(1, "4x_bit"));
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
    freshness.note(kWriteRegister10, Request(1, "4x_bit"), 1);
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1)));
}

// Coils 0 to 39 confirmed by one read, then a shorter read of N bytes: in single-station
// mode the driver stores its LRC (and, from two bytes on, its CR LF) into the next bytes.
struct SpillCase {
    const char *read;  // frame of the shorter read, coils from 0
    int firstSpilled;
    int endSpilled;
};

class BitReplySpill : public ::testing::TestWithParam<SpillCase> {};

TEST_P(BitReplySpill, TheBytesAfterAShortBitReplyAreUnconfirmedInSingleStationMode) {
    const QByteArray kReadCoils0To63 = ":010100000040BE\r\n";
    ValueFreshness single;
    ValueFreshness multi(true);
    for (ValueFreshness *freshness : {&single, &multi}) {
        freshness->note(kReadCoils0To63, Request(0, "0x"), 1);
        freshness->note(GetParam().read, Request(0, "0x"), 1);
    }
    for (int coil = 0; coil < 64; ++coil) {
        const bool spilled = coil >= GetParam().firstSpilled && coil < GetParam().endSpilled;
        EXPECT_EQ(single.confirmed(Tag("0x", coil, 1)), !spilled) << coil;
        EXPECT_TRUE(multi.confirmed(Tag("0x", coil, 1))) << coil;
    }
}

INSTANTIATE_TEST_SUITE_P(ValueFreshness, BitReplySpill,
                         ::testing::Values(SpillCase{":010100000008F6\r\n", 8, 16},
                                           SpillCase{":010100000010EE\r\n", 16, 32},
                                           SpillCase{":010100000018E6\r\n", 24, 40}));

TEST(ValueFreshness, AValueIsAsOldAsTheOldestAnswerBehindIt) {
    qint64 now = 1000;
    ValueFreshness freshness(false, [&now] { return now; });
    EXPECT_EQ(freshness.ageMs(Tag("4x", 10, 1)), std::nullopt);
    freshness.note(kReadRegisters10To14, Request(0, "4x"), 1);
    now = 1400;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    now = 1500;
    EXPECT_EQ(freshness.ageMs(Tag("4x", 10, 1)), 100);
    EXPECT_EQ(freshness.ageMs(Tag("4x", 11, 1)), 500);
    EXPECT_EQ(freshness.ageMs(Tag("4x", 10, 2)), 500);
    EXPECT_EQ(freshness.ageMs(Tag("4x", 14, 2)), std::nullopt);  // register 15 never read
}

TEST(ValueFreshness, APolledValueOlderThanTheBoundIsNotConfirmed) {
    qint64 now = 0;
    ValueFreshness freshness(false, [&now] { return now; });
    freshness.setMaxAgeMs(2000);
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    now = 2000;
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1), true));
    now = 2001;
    EXPECT_FALSE(freshness.confirmed(Tag("4x", 10, 1), true));
    EXPECT_EQ(freshness.ageMs(Tag("4x", 10, 1)), 2001);
    // A one-shot read has no pass to miss: its value stays confirmed.
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1), false));
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1), true));
}

TEST(ValueFreshness, APortLostForgetsTheAges) {
    ValueFreshness freshness;
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.forgetAll();
    EXPECT_EQ(freshness.ageMs(Tag("4x", 10, 1)), std::nullopt);
}

TEST(ValueFreshness, AStationSetAsideLosesItsConfirmationsAlone) {
    const QByteArray readStation2 = ":0203000A0001F0\r\n";  // register 10 of station 2
    ValueFreshness freshness(true);
    freshness.note(kReadRegister10, Request(0, "4x"), 1);
    freshness.note(readStation2, Request(0, "4x"), 1);
    freshness.forgetStation(2);
    Variable atStation2 = Tag("4x", 10, 1);
    atStation2.station = 2;
    EXPECT_FALSE(freshness.confirmed(atStation2));
    EXPECT_TRUE(freshness.confirmed(Tag("4x", 10, 1)));
}

TEST(PassAgeBoundMs, TwiceAPassOfRequestsThatUseEveryAttempt) {
    EXPECT_EQ(PassAgeBoundMs(40, 4, 1000, 200), 384000);  // 2 * 40 * 4 * 1200
    EXPECT_EQ(PassAgeBoundMs(2, 1, 100, 50), 1000);       // 600 ms: raised to a second
    EXPECT_EQ(PassAgeBoundMs(0, 4, 1000, 200), 1000);
    EXPECT_EQ(PassAgeBoundMs(1000000, 2000000000, 2000000000, 200), ValueFreshness::kNoBound);
}

}  // namespace
