// SPDX-License-Identifier: MIT
// Whole poll cycles through the exported functions, against a test slave: reads of every
// area, every kind of write, broadcast, retries up to abandonment, the rhythm of writes,
// one-shot reads and cyclic reads, and the completion callbacks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver_fixture.h"
#include "modbus_ascii_master_api.h"
#include "test_responder.h"

namespace {

using Frames = std::vector<QByteArray>;
using Calls = std::vector<CallbackRecord>;

class PollCycleTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        slave = &responder.Station(1);
    }

    // Runs n turns of the host loop and returns the frames that were sent.
    Frames Run(int n) {
        Frames sent;
        for (int i = 0; i < n; ++i) {
            PollStep step = PollOnce(responder);
            results.push_back(step.result);
            if (step.sent) sent.push_back(step.frame);
        }
        return sent;
    }

    // Runs turns until `callbacks` completions were reported, at most maxTurns.
    Frames RunUntilCallbacks(size_t callbacks, int maxTurns = 200) {
        Frames sent;
        for (int i = 0; i < maxTurns && RecordedCallbacks().size() < callbacks; ++i) {
            PollStep step = PollOnce(responder);
            results.push_back(step.result);
            if (step.sent) sent.push_back(step.frame);
        }
        EXPECT_EQ(RecordedCallbacks().size(), callbacks);
        return sent;
    }

    static RW_VAR Request(const char *areaName, int address, int count, int ownerType, int ownerId,
                          int direction = 0, QByteArray value = QByteArray()) {
        RW_VAR v = MakeVar(areaName, address, 1, count, direction, value);
        v.ownerType = ownerType;
        v.ownerId = ownerId;
        return v;
    }

    QByteArray Get(const char *areaName, int address, int count, int station = 1) {
        QByteArray out;
        EXPECT_EQ(GetRegisterData(QString::fromLatin1(areaName), address, station, out, count), 1);
        return out;
    }

    TestResponder responder;
    SlaveStation *slave = nullptr;
    std::vector<int> results;
};

// ---- Reads -------------------------------------------------------------------------------

TEST_F(PollCycleTest, CyclicReadsOfEveryAreaFillTheImage) {
    for (int coil : {0, 2, 3, 6, 7, 8}) slave->coils[coil] = 1;           // bytes CD 01
    for (int input : {16, 18, 21, 23}) slave->discreteInputs[input] = 1;  // byte A5
    slave->inputRegisters[10] = 0x1234;
    slave->inputRegisters[11] = 0xABCD;
    slave->holdingRegisters[20] = 0x0102;
    slave->inputRegisters[0x30] = 0x8001;
    slave->holdingRegisters[0x40] = 0x0100;
    slave->inputRegisters[50] = 0x0001;
    slave->inputRegisters[51] = 0x86A0;
    slave->holdingRegisters[60] = 0x1234;
    slave->holdingRegisters[61] = 0x5678;

    RW_VAR reads[] = {MakeVar("0x", 0, 1, 2),         MakeVar("1x", 16, 1, 1),
                      MakeVar("3x", 10, 1, 2),        MakeVar("4x", 20, 1, 1),
                      MakeVar("3x_bit", 0x30, 1, 1),  MakeVar("4x_bit", 0x40, 1, 1),
                      MakeVar("3x_double", 50, 1, 2), MakeVar("4x_double", 60, 1, 2)};
    int n = 0;
    for (RW_VAR &r : reads) EXPECT_EQ(AddListReadVar(&r), ++n);

    EXPECT_EQ(Run(8), (Frames{":010100000010EE\r\n", ":010200100008E5\r\n", ":0104000A0002EF\r\n",
                              ":010300140001E7\r\n", ":010400300001CA\r\n", ":010300400001BB\r\n",
                              ":010400320002C7\r\n", ":0103003C0002BE\r\n"}));
    EXPECT_EQ(results, std::vector<int>(8, 1));
    EXPECT_EQ(responder.MalformedFrames(), 0);

    EXPECT_EQ(Get("0x", 0, 16), Bytes({1, 0, 1, 1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
    // The coil reply's LRC 0x2E lands on coils 16..23 and CR LF clears 24..31.
    EXPECT_EQ(Get("0x", 16, 16), Bytes({0, 1, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Get("1x", 16, 8), Bytes({1, 0, 1, 0, 0, 1, 0, 1}));
    // The input reply ":010201A557": its LRC 0x57 lands on inputs 24..31.
    EXPECT_EQ(Get("1x", 24, 8), Bytes({1, 1, 1, 0, 1, 0, 1, 0}));
    EXPECT_EQ(Get("3x", 10, 2), Bytes({0x34, 0x12, 0xCD, 0xAB}));
    EXPECT_EQ(Get("4x", 20, 1), Bytes({0x02, 0x01}));
    EXPECT_EQ(Get("3x_bit", 0x30 * 16, 3), Bytes({1, 0, 0}));
    EXPECT_EQ(Get("3x_bit", 0x30 * 16 + 15, 1), Bytes({1}));
    EXPECT_EQ(Get("4x_bit", 0x40 * 16 + 7, 3), Bytes({0, 1, 0}));
    EXPECT_EQ(Get("3x_double", 50, 2), Bytes({0xA0, 0x86, 0x01, 0x00}));
    EXPECT_EQ(Get("4x_double", 60, 2), Bytes({0x78, 0x56, 0x34, 0x12}));
    EXPECT_EQ(Get("4x_double", 60, 1), Bytes({0x78, 0x56}));
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(PollCycleTest, RebuiltReadListIsPolledAndMarksTheCycle) {
    slave->coils[3] = 1;
    slave->coils[20] = 1;
    slave->holdingRegisters[20] = 0xBEEF;
    slave->holdingRegisters[21] = 0x0007;
    QList<Keyboard> vars;
    Keyboard holding;
    holding.area = QStringLiteral("4x");
    holding.address = 20;
    holding.length = 2;
    Keyboard coilA;
    coilA.area = QStringLiteral("0x");
    coilA.address = 3;
    coilA.length = 1;
    Keyboard coilB = coilA;
    coilB.address = 20;
    vars << holding << coilA << coilB;
    info.cycleDone = 1;
    EXPECT_EQ(ReCreatReadVarList(&vars), 2);
    EXPECT_EQ(info.cycleDone, 0);

    EXPECT_EQ(Run(2), (Frames{":010100000018E6\r\n", ":010300140002E6\r\n"}));
    EXPECT_EQ(info.cycleDone, 0);
    EXPECT_EQ(Get("0x", 3, 1), Bytes({1}));
    EXPECT_EQ(Get("0x", 20, 1), Bytes({1}));
    EXPECT_EQ(Get("4x", 20, 2), Bytes({0xEF, 0xBE, 0x07, 0x00}));
    EXPECT_EQ(Run(1), (Frames{":010100000018E6\r\n"}));
    EXPECT_EQ(info.cycleDone, 1);
}

TEST_F(PollCycleTest, MultiStationReadsAndWritesAreKeptPerStation) {
    info.multiStation = 1;
    responder.Station(2).holdingRegisters[7] = 0x1111;
    responder.Station(3).holdingRegisters[7] = 0x2222;
    RW_VAR a = MakeVar("4x", 7, 2, 1);
    RW_VAR b = MakeVar("4x", 7, 3, 1);
    AddListReadVar(&a);
    AddListReadVar(&b);
    EXPECT_EQ(Run(2), (Frames{":020300070001F3\r\n", ":030300070001F2\r\n"}));
    EXPECT_EQ(Get("4x", 7, 1, 2), Bytes({0x11, 0x11}));
    EXPECT_EQ(Get("4x", 7, 1, 3), Bytes({0x22, 0x22}));
    EXPECT_EQ(Get("4x", 7, 1, 1), Bytes({0x00, 0x00}));

    EXPECT_EQ(SetRegisterData(QStringLiteral("4x"), 8, 3, Bytes({0x34, 0x12}), 1), 1);
    EXPECT_EQ(Run(1), (Frames{":030600081234A9\r\n"}));
    EXPECT_EQ(responder.Station(3).holdingRegisters[8], 0x1234);
    EXPECT_EQ(responder.Station(2).holdingRegisters[8], 0);
    EXPECT_EQ(Get("4x", 8, 1, 3), Bytes({0x34, 0x12}));
    EXPECT_EQ(Get("4x", 8, 1, 2), Bytes({0x00, 0x00}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 0, 0, 1}}));
}

TEST_F(PollCycleTest, OneShotReadLongerThanAFrameIsReadInPiecesAndReportedOnce) {
    for (int i = 0; i < 300; ++i) slave->holdingRegisters[i] = static_cast<uint16_t>(3 * i);
    RW_VAR once = Request("4x", 0, 300, 6, 1);
    EXPECT_EQ(AddListOnceReadVar(&once), 3);
    EXPECT_EQ(RunUntilCallbacks(1),
              (Frames{":01030000007D7F\r\n", ":0103007D007D02\r\n", ":010300FA0032D0\r\n"}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 6, 1, 1}}));
    const QByteArray values = Get("4x", 0, 300);
    ASSERT_EQ(values.size(), 600);
    for (int i = 0; i < 300; ++i) {
        const int v = (static_cast<unsigned char>(values.at(2 * i + 1)) << 8) |
                      static_cast<unsigned char>(values.at(2 * i));
        EXPECT_EQ(v, 3 * i) << "register " << i;
    }
}

// ---- Writes ------------------------------------------------------------------------------

TEST_F(PollCycleTest, EveryWriteKindReachesTheSlaveAndIsReportedOnceForItsOwner) {
    info.maxFrameWords = 2;
    slave->holdingRegisters[0x300] = 0xA5A0;
    EXPECT_EQ(SetRegisterData(QStringLiteral("0x"), 5, 0, Bytes({1}), 1), 1);
    EXPECT_EQ(SetRegisterData(QStringLiteral("4x"), 10, 0, Bytes({0x34, 0x12}), 1), 2);
    EXPECT_EQ(
        SetRegisterData(QStringLiteral("4x"), 100, 0,
                        Bytes({0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19}), 5),
        5);
    EXPECT_EQ(
        SetRegisterData(QStringLiteral("4x_double"), 200, 0, Bytes({0x78, 0x56, 0x34, 0x12}), 2),
        6);
    EXPECT_EQ(SetRegisterData(QStringLiteral("4x_bit"), 0x3000, 0, Bytes({1}), 1), 7);
    // Nothing is cached before the frames are built while the link is up.
    EXPECT_EQ(Get("4x", 10, 1), Bytes({0, 0}));

    EXPECT_EQ(
        RunUntilCallbacks(1),
        (Frames{":01050005FF00F6\r\n", ":0106000A1234A9\r\n", ":01100064000204111013123F\r\n",
                ":01100066000204151417162D\r\n", ":01060068191860\r\n",
                ":011000C8000204123456780D\r\n", ":010303000001F8\r\n", ":01060300A5A1B0\r\n"}));
    // All eight frames came from requests of one owner: one report, after the last.
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 0, 0, 1}}));
    EXPECT_EQ(responder.MalformedFrames(), 0);

    EXPECT_EQ(slave->coils[5], 1);
    EXPECT_EQ(slave->holdingRegisters[10], 0x1234);
    EXPECT_EQ(slave->holdingRegisters[100], 0x1110);
    EXPECT_EQ(slave->holdingRegisters[101], 0x1312);
    EXPECT_EQ(slave->holdingRegisters[102], 0x1514);
    EXPECT_EQ(slave->holdingRegisters[103], 0x1716);
    EXPECT_EQ(slave->holdingRegisters[104], 0x1918);
    EXPECT_EQ(slave->holdingRegisters[200], 0x1234);
    EXPECT_EQ(slave->holdingRegisters[201], 0x5678);
    EXPECT_EQ(slave->holdingRegisters[0x300], 0xA5A1);

    EXPECT_EQ(Get("0x", 5, 1), Bytes({1}));
    EXPECT_EQ(Get("4x", 10, 1), Bytes({0x34, 0x12}));
    EXPECT_EQ(Get("4x", 100, 5),
              Bytes({0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19}));
    EXPECT_EQ(Get("4x_double", 200, 2), Bytes({0x78, 0x56, 0x34, 0x12}));
    // The bit write shows the register as it was read back, before the write.
    EXPECT_EQ(Get("4x", 0x300, 1), Bytes({0xA0, 0xA5}));
}

TEST_F(PollCycleTest, BitWritesKeepTheOtherBitsOfTheRegister) {
    slave->holdingRegisters[0x300] = 0xA5A0;
    SetRegisterData(QStringLiteral("4x_bit"), 0x3000, 0, Bytes({1}), 1);
    EXPECT_EQ(RunUntilCallbacks(1), (Frames{":010303000001F8\r\n", ":01060300A5A1B0\r\n"}));
    EXPECT_EQ(slave->holdingRegisters[0x300], 0xA5A1);

    SetRegisterData(QStringLiteral("4x_bit"), 0x3005, 0, Bytes({0}), 1);
    EXPECT_EQ(RunUntilCallbacks(2), (Frames{":010303000001F8\r\n", ":01060300A581D0\r\n"}));
    EXPECT_EQ(slave->holdingRegisters[0x300], 0xA581);
    EXPECT_EQ(Get("4x_bit", 0x3000, 8), Bytes({1, 0, 0, 0, 0, 1, 0, 1}));  // as read: 0xA5A1

    RW_VAR cyclic = MakeVar("4x", 0x300, 1, 1);
    AddListReadVar(&cyclic);
    Run(1);
    EXPECT_EQ(Get("4x_bit", 0x3000, 8), Bytes({1, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 0, 0, 1}, {7, 0, 0, 1}}));
}

TEST_F(PollCycleTest, BroadcastWritesReachEveryStationWithoutReply) {
    info.defaultStation = 0;
    SlaveStation &other = responder.Station(2);
    EXPECT_EQ(SetRegisterData(QStringLiteral("4x"), 7, 5, Bytes({0x42, 0x00}), 1), 1);
    EXPECT_EQ(SetRegisterData(QStringLiteral("0x"), 9, 5, Bytes({1}), 1), 2);
    EXPECT_EQ(RunUntilCallbacks(1), (Frames{":000600070042B1\r\n", ":00050009FF00F3\r\n"}));
    EXPECT_EQ(results, (std::vector<int>{1, 1}));
    EXPECT_EQ(slave->holdingRegisters[7], 0x42);
    EXPECT_EQ(other.holdingRegisters[7], 0x42);
    EXPECT_EQ(slave->coils[9], 1);
    EXPECT_EQ(other.coils[9], 1);
    EXPECT_EQ(Get("4x", 7, 1), Bytes({0x42, 0x00}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 0, 0, 1}}));
}

TEST_F(PollCycleTest, BitWriteToBroadcastIsNeverSentAndHoldsUpLaterWrites) {
    info.defaultStation = 0;
    SetRegisterData(QStringLiteral("4x_bit"), 0x3000, 0, Bytes({1}), 1);
    info.defaultStation = 1;
    SetRegisterData(QStringLiteral("4x"), 7, 0, Bytes({0x42, 0x00}), 1);
    RW_VAR cyclic = MakeVar("4x", 0x300, 1, 1);
    AddListReadVar(&cyclic);
    EXPECT_EQ(Run(12), (Frames{":010303000001F8\r\n", ":010303000001F8\r\n"}));
    EXPECT_EQ(slave->holdingRegisters[7], 0);
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(PollCycleTest, CallbacksCarryTheDeviceIdOfComInfo) {
    info.deviceId = 99;
    RW_VAR w = Request("4x", 1, 1, 5, 12, 1, Bytes({3, 0}));
    AddListWriteVar(&w);
    RunUntilCallbacks(1);
    EXPECT_EQ(RecordedCallbacks(), (Calls{{99, 5, 12, 1}}));
}

// ---- Rhythm ------------------------------------------------------------------------------

TEST_F(PollCycleTest, FiveWritesThenFiveOneShotReadsThenOneCyclicRead) {
    RW_VAR cyclicA = MakeVar("4x", 500, 1, 1);
    RW_VAR cyclicB = MakeVar("4x", 600, 1, 1);
    AddListReadVar(&cyclicA);
    AddListReadVar(&cyclicB);
    for (int i = 0; i < 7; ++i) {
        RW_VAR w = Request("4x", i, 1, 1, i, 1, Bytes({i, 0}));
        EXPECT_EQ(AddListWriteVar(&w), i + 1);
        RW_VAR once = Request("4x", 300 + i, 1, 2, i);
        EXPECT_EQ(AddListOnceReadVar(&once), i + 1);
    }
    std::vector<std::string> turns;
    for (int i = 0; i < 17; ++i) {
        const PollStep step = PollOnce(responder);
        ASSERT_TRUE(step.sent);
        EXPECT_EQ(step.result, 1);
        const DecodedRequest r = TestResponder::Decode(step.frame);
        turns.push_back((r.function == 6 ? "W" : "R") + std::to_string(r.address));
    }
    EXPECT_EQ(turns, (std::vector<std::string>{"W0", "W1", "W2", "W3", "W4", "R300", "R301", "R302",
                                               "R303", "R304", "R500", "W5", "W6", "R305", "R306",
                                               "R600", "R500"}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 1, 0, 1},
                                          {7, 1, 1, 1},
                                          {7, 1, 2, 1},
                                          {7, 1, 3, 1},
                                          {7, 1, 4, 1},
                                          {7, 2, 0, 1},
                                          {7, 2, 1, 1},
                                          {7, 2, 2, 1},
                                          {7, 2, 3, 1},
                                          {7, 2, 4, 1},
                                          {7, 1, 5, 1},
                                          {7, 1, 6, 1},
                                          {7, 2, 5, 1},
                                          {7, 2, 6, 1}}));
    for (int i = 0; i < 7; ++i) EXPECT_EQ(slave->holdingRegisters[i], i);
}

// ---- Retries up to abandonment -----------------------------------------------------------

enum class Kind { kWrite, kOnceRead, kCyclicRead };

struct AbandonCase {
    SlaveMode mode;
    Kind kind;
    int ownerType;
    int code;
};

class AbandonTest : public PollCycleTest, public ::testing::WithParamInterface<AbandonCase> {};

TEST_P(AbandonTest, RejectedRepliesAreRetriedThenAbandonedWithTheirCode) {
    const AbandonCase c = GetParam();
    slave->mode = c.mode;
    // Register 1 holding 0 gives the read reply ":0103020000FA"; writing 3 gives the echo
    // ":010600010003F5": both LRCs have a letter to lower.
    switch (c.kind) {
        case Kind::kWrite: {
            RW_VAR w = Request("4x", 1, 1, c.ownerType, 30, 1, Bytes({3, 0}));
            AddListWriteVar(&w);
            break;
        }
        case Kind::kOnceRead: {
            RW_VAR once = Request("4x", 1, 1, c.ownerType, 30);
            AddListOnceReadVar(&once);
            break;
        }
        case Kind::kCyclicRead: {
            RW_VAR cyclic = Request("4x", 1, 1, c.ownerType, 30);
            AddListReadVar(&cyclic);
            break;
        }
    }
    Run(3);
    EXPECT_EQ(results, (std::vector<int>{0, 0, c.code}));
    ASSERT_EQ(responder.Received().size(), 3u);
    EXPECT_EQ(responder.Received()[1], responder.Received()[0]);
    EXPECT_EQ(responder.Received()[2], responder.Received()[0]);
    if (c.mode == SlaveMode::kLowerCaseLrc) {
        EXPECT_TRUE(responder.LastLrcHadLetter());
    }
    if (c.kind == Kind::kCyclicRead) {
        EXPECT_TRUE(RecordedCallbacks().empty());
    } else {
        EXPECT_EQ(RecordedCallbacks(), (Calls{{7, c.ownerType, 30, 2}}));
    }

    // The link is down now: a host write is cached at once.
    EXPECT_EQ(SetRegisterData(QStringLiteral("4x"), 9, 0, Bytes({0x34, 0x12}), 1), 1);
    EXPECT_EQ(Get("4x", 9, 1), Bytes({0x34, 0x12}));

    // A good reply brings the link back: the next write is cached only when it is built.
    slave->mode = SlaveMode::kCorrect;
    RunUntilCallbacks(c.kind == Kind::kCyclicRead ? 1 : 2);
    EXPECT_EQ(slave->holdingRegisters[9], 0x1234);
    EXPECT_EQ(RecordedCallbacks().back(), (CallbackRecord{7, 0, 0, 1}));
    EXPECT_EQ(SetRegisterData(QStringLiteral("4x"), 11, 0, Bytes({0x78, 0x56}), 1), 1);
    EXPECT_EQ(Get("4x", 11, 1), Bytes({0x00, 0x00}));
}

INSTANTIATE_TEST_SUITE_P(
    Modes, AbandonTest,
    ::testing::Values(AbandonCase{SlaveMode::kSilence, Kind::kWrite, 0, 41},
                      AbandonCase{SlaveMode::kSilence, Kind::kWrite, 3, 44},
                      AbandonCase{SlaveMode::kSilence, Kind::kOnceRead, 11, 52},
                      AbandonCase{SlaveMode::kSilence, Kind::kCyclicRead, 0, 41},
                      AbandonCase{SlaveMode::kWrongLength, Kind::kWrite, 2, 73},
                      AbandonCase{SlaveMode::kWrongLength, Kind::kOnceRead, 5, 76},
                      AbandonCase{SlaveMode::kException, Kind::kWrite, 1, 72},
                      AbandonCase{SlaveMode::kException, Kind::kOnceRead, 7, 78},
                      AbandonCase{SlaveMode::kException, Kind::kCyclicRead, 0, 71},
                      AbandonCase{SlaveMode::kBadLrc, Kind::kWrite, 4, 15},
                      AbandonCase{SlaveMode::kBadLrc, Kind::kOnceRead, 12, 11},
                      AbandonCase{SlaveMode::kLowerCaseLrc, Kind::kWrite, 6, 17},
                      AbandonCase{SlaveMode::kLowerCaseLrc, Kind::kOnceRead, 9, 20},
                      AbandonCase{SlaveMode::kLowerCaseLrc, Kind::kCyclicRead, 10, 21}));

TEST_F(PollCycleTest, AFailureBetweenGoodRepliesIsRetriedAndTheRequestCompletes) {
    RW_VAR w = Request("4x", 1, 1, 3, 8, 1, Bytes({3, 0}));
    AddListWriteVar(&w);
    slave->scripted = {SlaveMode::kBadLrc, SlaveMode::kCorrect};
    RunUntilCallbacks(1);
    EXPECT_EQ(results, (std::vector<int>{0, 1}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 3, 8, 1}}));
    EXPECT_EQ(info.retryCount, 1);  // a good reply does not reset it
    EXPECT_EQ(slave->holdingRegisters[1], 3);
}

TEST_F(PollCycleTest, FailedBitWriteNeverSendsItsPlaceholder) {
    slave->holdingRegisters[0x300] = 0xA5A0;
    slave->mode = SlaveMode::kSilence;
    SetRegisterData(QStringLiteral("4x_bit"), 0x3000, 0, Bytes({1}), 1);
    Run(3);
    EXPECT_EQ(results, (std::vector<int>{0, 0, 41}));
    EXPECT_EQ(RecordedCallbacks(), (Calls{{7, 0, 0, 2}}));
    slave->mode = SlaveMode::kCorrect;
    EXPECT_EQ(Run(3), Frames{});  // nothing queued any more: idle polls
    for (const DecodedRequest &r : responder.Decoded()) EXPECT_EQ(r.function, 3);
    EXPECT_EQ(slave->holdingRegisters[0x300], 0xA5A0);
}

}  // namespace
