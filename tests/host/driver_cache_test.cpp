// SPDX-License-Identifier: MIT
// What the host vouches for, checked against the driver's real cache: the driver (its static
// library) serves the requests, the test answers as the slave with frames written out by
// hand, and every value the host would show as confirmed must be the slave's.
#include <gtest/gtest.h>

#include "driver_reset.h"
#include "modbus_ascii_master_api.h"
#include "static_driver.h"
#include "value_freshness.h"
#include "variables.h"

namespace {

Variable Tag(const char *area, int address, int length, int station = 1) {
    Variable variable;
    variable.station = station;
    variable.area = QLatin1String(area);
    variable.address = address;
    variable.length = length;
    return variable;
}

RW_VAR Request(const char *area, int address, int count, int station, QByteArray value = {}) {
    RW_VAR request;
    request.area = QLatin1String(area);
    request.address = address;
    request.count = count;
    request.station = station;
    request.direction = value.isEmpty() ? 0 : 1;
    request.value = value;
    return request;
}

class DriverCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetDriverObject();
        info_.maxFrameWords = 125;
        info_.defaultStation = 1;
        info_.retryLimit = 0;
        info_.workMode = 2;
        ::SetComInfo(&info_);
    }
    void TearDown() override { ResetDriverObject(); }

    void useStations() {
        info_.multiStation = 1;
        freshness_ = ValueFreshness(true);
    }

    // One transaction as the poll loop makes it: the frame the driver hands out must be
    // expectedFrame, reply is the slave's answer (empty: silence); returns DataCom's result.
    int transact(const QByteArray &expectedFrame, QByteArray reply) {
        Protocol *protocol = api_.comCommunication();
        if (protocol == nullptr) return -1;
        const QByteArray frame = protocol->frame.left(protocol->frameLength);
        const RW_VAR var = protocol->var;
        EXPECT_EQ(frame, expectedFrame);
        freshness_.handedOut(frame, var);
        const int result = api_.dataCom(&reply);
        freshness_.note(frame, var, result);
        return result;
    }

    QList<quint32> cached(const Variable &variable) const { return CurrentValues(api_, variable); }

    DriverApi api_ = StaticDriver();
    ComInfo info_;
    ValueFreshness freshness_;
};

// Register 10 of station 1 read as 10; station 5 silent, abandoned; the write of 999 is
// then built without touching the cache, and acknowledged. The cache still says 10.
TEST_F(DriverCacheTest, AWriteAfterAnAbandonedRequestLeavesTheCacheAndIsNotConfirmed) {
    useStations();
    RW_VAR read10 = Request("4x", 10, 1, 1);
    RW_VAR read5 = Request("4x", 0, 1, 5);
    read5.ownerId = 2;
    ::AddListOnceReadVar(&read10);
    ::AddListOnceReadVar(&read5);
    EXPECT_EQ(transact(":0103000A0001F1\r\n", ":010302000AF0\r\n"), 1);
    EXPECT_EQ(transact(":050300000001F7\r\n", {}), 41);
    RW_VAR write = Request("4x", 10, 1, 1, QByteArray("\xE7\x03", 2));
    ::AddListWriteVar(&write);
    EXPECT_EQ(transact(":0106000A03E705\r\n", ":0106000A03E705\r\n"), 1);
    EXPECT_EQ(cached(Tag("4x", 10, 1)), QList<quint32>({10}));  // the slave holds 999
    EXPECT_FALSE(freshness_.confirmed(Tag("4x", 10, 1)));
    // With the link up again the next write's value is cached and confirmed.
    write.value = QByteArray("\xE8\x03", 2);
    ::AddListWriteVar(&write);
    EXPECT_EQ(transact(":0106000A03E804\r\n", ":0106000A03E804\r\n"), 1);
    EXPECT_EQ(cached(Tag("4x", 10, 1)), QList<quint32>({1000}));
    EXPECT_TRUE(freshness_.confirmed(Tag("4x", 10, 1)));
}

// Coils 8 to 23 read as 0, then the cyclic read of coils 0 to 7 (0x0D): the driver stores the
// reply's LRC, 0xF0, into coils 8 to 15.
TEST_F(DriverCacheTest, TheSpillOfAShortCoilReplyIsNotConfirmed) {
    QList<Keyboard> polled;
    Keyboard coils;
    coils.station = 1;
    coils.area = QStringLiteral("0x");
    coils.address = 0;
    coils.length = 8;
    polled.append(coils);
    ::ReCreatReadVarList(&polled);
    RW_VAR once = Request("0x", 8, 8, 1);
    ::AddListOnceReadVar(&once);
    EXPECT_EQ(transact(":010100080010E6\r\n", ":0101020000FC\r\n"), 1);
    EXPECT_TRUE(freshness_.confirmed(Tag("0x", 8, 16)));
    EXPECT_EQ(transact(":010100000008F6\r\n", ":0101010DF0\r\n"), 1);
    EXPECT_EQ(cached(Tag("0x", 8, 8)), QList<quint32>({0, 0, 0, 0, 1, 1, 1, 1}));
    EXPECT_FALSE(freshness_.confirmed(Tag("0x", 8, 8)));
    EXPECT_TRUE(freshness_.confirmed(Tag("0x", 0, 8)));
    EXPECT_TRUE(freshness_.confirmed(Tag("0x", 16, 8)));  // the CR LF byte goes only from N = 2
}

// A write is cached when its frame is built: while it waits for an acknowledgement (retried,
// or the run stopped) the cache holds a value the slave never confirmed.
TEST_F(DriverCacheTest, AWriteAwaitingItsAcknowledgementIsNotConfirmed) {
    info_.retryLimit = 3;
    RW_VAR read = Request("4x", 10, 1, 1);
    ::AddListOnceReadVar(&read);
    EXPECT_EQ(transact(":0103000A0001F1\r\n", ":010302000AF0\r\n"), 1);
    RW_VAR write = Request("4x", 10, 1, 1, QByteArray("\xE7\x03", 2));
    ::AddListWriteVar(&write);
    EXPECT_EQ(transact(":0106000A03E705\r\n", {}), 0);
    EXPECT_EQ(cached(Tag("4x", 10, 1)), QList<quint32>({999}));  // the slave holds 10
    EXPECT_FALSE(freshness_.confirmed(Tag("4x", 10, 1)));
}

}  // namespace
