// SPDX-License-Identifier: MIT
// Read request frames: one 17-character frame per read, function code by area name, and
// the reply sizes recorded for validation. Frames and LRCs were worked out by hand.
#include <gtest/gtest.h>

#include <QByteArray>
#include <string>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

struct ReadRow {
    const char *area;
    int station;
    int address;
    int count;
    const char *frame;
    int replyLength;
    int replyDataStart;
    int replyDataLength;
    const char *suffix;
};

std::string ReadRowName(const ReadRow &row) {
    std::string name;
    for (const char *c = row.frame; *c != '\0'; ++c) {
        if ((*c >= '0' && *c <= '9') || (*c >= 'A' && *c <= 'F')) name += *c;
    }
    return name + row.suffix;
}

class ReadRequestFrame : public DriverTest, public ::testing::WithParamInterface<ReadRow> {};

TEST_P(ReadRequestFrame, QueuesOneFrameWithItsReplySizes) {
    const ReadRow &row = GetParam();
    info.framesDone = 5;
    info.framesInRequest = 9;
    RW_VAR var = MakeVar(row.area, row.address, row.station, row.count);

    ReadRegister(&var);

    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    const Protocol &p = PLC_driver.sendList.first();
    EXPECT_EQ(p.frame, QByteArray(row.frame));
    EXPECT_EQ(p.frameLength, 17);
    EXPECT_EQ(p.replyLength, row.replyLength);
    EXPECT_EQ(p.replyDataStart, row.replyDataStart);
    EXPECT_EQ(p.replyDataLength, row.replyDataLength);
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
}

const ReadRow kReadRows[] = {
    // Holding registers: function 3, quantity = count, 4 characters per register.
    {"4x", 1, 0, 1, ":010300000001FB\r\n", 15, 7, 4, ""},
    {"4x_bit", 4, 0x1234, 1, ":040312340001B2\r\n", 15, 7, 4, ""},
    {"4x_double", 5, 0xFFFE, 2, ":0503FFFE0002F9\r\n", 19, 7, 8, ""},
    // Input registers: function 4.
    {"3x", 1, 0x10, 2, ":010400100002E9\r\n", 19, 7, 8, ""},
    {"3x_bit", 2, 0x0100, 1, ":020401000001F8\r\n", 15, 7, 4, ""},
    {"3x_double", 3, 0x0200, 2, ":030402000002F5\r\n", 19, 7, 8, ""},
    // Coils and discrete inputs: count is in bytes of bits, quantity = count x 8.
    {"0x", 1, 0, 2, ":010100000010EE\r\n", 15, 7, 4, ""},
    {"1x", 17, 0x00C4, 3, ":110200C4001811\r\n", 17, 7, 6, ""},
    {"0x", 9, 0x0013, 1, ":090100130008DB\r\n", 13, 7, 2, ""},
    // Any other name: function 1, quantity = count, register-sized reply expectations.
    {"5x", 1, 0, 1, ":010100000001FD\r\n", 15, 7, 4, "_unknownArea"},
    {"4X", 1, 0, 2, ":010100000002FC\r\n", 19, 7, 8, "_upperCaseX"},
    {"", 1, 0, 3, ":010100000003FB\r\n", 23, 7, 12, "_emptyName"},
    // Only the low 8 bits of the station and the low 16 bits of the address are sent.
    {"4x", 0x1F7, 0x12345, 1, ":F703234500019D\r\n", 15, 7, 4, ""},
    {"0x", 0x1F7, 0x12345, 1, ":F7012345000898\r\n", 13, 7, 2, ""},
    {"4x", -1, -1, 1, ":FF03FFFF0001FF\r\n", 15, 7, 4, "_negativeStationAndAddress"},
    // A sum that is a multiple of 256 gives LRC "00".
    {"4x", 0xFC, 0, 1, ":FC030000000100\r\n", 15, 7, 4, ""},
    // Broadcast: built and queued, no reply expected.
    {"4x", 0, 0, 1, ":000300000001FC\r\n", 0, 0, 0, "_broadcast"},
    {"0x", 0, 0, 1, ":000100000008F7\r\n", 0, 0, 0, "_broadcast"},
    {"3x_double", 0, 0x0200, 2, ":000402000002F8\r\n", 0, 0, 0, "_broadcast"},
    {"5x", 0, 0, 1, ":000100000001FE\r\n", 0, 0, 0, "_broadcastUnknownArea"},
    {"4x", 0x100, 0, 1, ":000300000001FC\r\n", 15, 7, 4, "_station256IsNotBroadcast"},
    // Very large counts: the quantity is cut to 16 bits, the reply sizes are not.
    {"4x", 1, 0, 65537, ":010300000001FB\r\n", 262159, 7, 262148, "_count65537"},
    {"4x", 1, 0, 70000, ":0103000011707B\r\n", 280011, 7, 280000, "_count70000"},
    {"0x", 1, 0, 8192, ":010100000000FE\r\n", 16395, 7, 16384, "_count8192Bytes"},
    {"1x", 1, 0, 8193, ":010200000008F5\r\n", 16397, 7, 16386, "_count8193Bytes"},
    {"4x", 1, 0, -1, ":01030000FFFFFE\r\n", 7, 7, -4, "_countMinus1"},
};

INSTANTIATE_TEST_SUITE_P(Reads, ReadRequestFrame, ::testing::ValuesIn(kReadRows),
                         [](const ::testing::TestParamInfo<ReadRow> &info) {
                             return ReadRowName(info.param);
                         });

using ReadRequest = DriverTest;

TEST_F(ReadRequest, CopiesTheWholeRequestIntoTheFrameRecord) {
    RW_VAR var;
    var.ownerType = 3;
    var.ownerId = 44;
    var.direction = 0;
    var.hostParamA = 101;
    var.hostParamB = 102;
    var.hostParamC = 103;
    var.area = QString::fromLatin1("4x_double");
    var.auxName = QString::fromLatin1("tag.aux");
    var.hostParamD = 104;
    var.address = 0x0200;
    var.station = 3;
    var.count = 2;
    var.bitWriteMark = -1;
    var.extraB = 105;
    var.value = Bytes({0xDE, 0xAD, 0xBE, 0xEF});

    ReadRegister(&var);

    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    const RW_VAR &copy = PLC_driver.sendList.first().var;
    EXPECT_EQ(copy.ownerType, 3);
    EXPECT_EQ(copy.ownerId, 44);
    EXPECT_EQ(copy.direction, 0);
    EXPECT_EQ(copy.hostParamA, 101);
    EXPECT_EQ(copy.hostParamB, 102);
    EXPECT_EQ(copy.hostParamC, 103);
    EXPECT_EQ(copy.area, QString::fromLatin1("4x_double"));
    EXPECT_EQ(copy.auxName, QString::fromLatin1("tag.aux"));
    EXPECT_EQ(copy.hostParamD, 104);
    EXPECT_EQ(copy.address, 0x0200);
    EXPECT_EQ(copy.station, 3);
    EXPECT_EQ(copy.count, 2);
    EXPECT_EQ(copy.bitWriteMark, -1);
    EXPECT_EQ(copy.extraB, 105);
    EXPECT_EQ(copy.value, Bytes({0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(PLC_driver.sendList.first().frame, QByteArray(":030302000002F6\r\n"));
}

TEST_F(ReadRequest, LeavesTheRequestAndTheListsUntouched) {
    RW_VAR var = MakeVar("4x", 0x10, 2, 3);
    var.ownerId = 8;
    AddListReadVar(&var);
    ReadRegister(&PLC_driver.readList.first());

    ASSERT_EQ(PLC_driver.readList.size(), 1);
    const RW_VAR &head = PLC_driver.readList.first();
    EXPECT_EQ(head.area, QString::fromLatin1("4x"));
    EXPECT_EQ(head.address, 0x10);
    EXPECT_EQ(head.station, 2);
    EXPECT_EQ(head.count, 3);
    EXPECT_EQ(head.ownerId, 8);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    EXPECT_EQ(PLC_driver.sendList.first().frame, QByteArray(":020300100003E8\r\n"));
}

TEST_F(ReadRequest, AppendsBehindFramesAlreadyQueued) {
    RW_VAR first = MakeVar("4x", 0, 1, 1);
    RW_VAR second = MakeVar("0x", 0, 1, 2);
    ReadRegister(&first);
    info.framesDone = 3;
    ReadRegister(&second);

    ASSERT_EQ(PLC_driver.sendList.size(), 2);
    EXPECT_EQ(PLC_driver.sendList.at(0).frame, QByteArray(":010300000001FB\r\n"));
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010100000010EE\r\n"));
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
}

TEST_F(ReadRequest, BitBuilderUsesFunctionTwoOnlyForDiscreteInputs) {
    RW_VAR inputs = MakeVar("1x", 0, 1, 1);
    RW_VAR coils = MakeVar("0x", 0, 1, 1);
    RW_VAR other = MakeVar("4x", 0, 1, 1);
    ReadBool(&inputs);
    ReadBool(&coils);
    ReadBool(&other);

    ASSERT_EQ(PLC_driver.sendList.size(), 3);
    EXPECT_EQ(PLC_driver.sendList.at(0).frame, QByteArray(":010200000008F5\r\n"));
    EXPECT_EQ(PLC_driver.sendList.at(1).frame, QByteArray(":010100000008F6\r\n"));
    EXPECT_EQ(PLC_driver.sendList.at(2).frame, QByteArray(":010100000008F6\r\n"));
    EXPECT_EQ(PLC_driver.sendList.at(2).replyLength, 13);
    EXPECT_EQ(PLC_driver.sendList.at(2).replyDataLength, 2);
}

TEST_F(ReadRequest, RegisterBuilderTreatsBitAreaNamesAsUnknown) {
    RW_VAR coils = MakeVar("0x", 0, 1, 2);
    ReadAnalog(&coils);

    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    const Protocol &p = PLC_driver.sendList.first();
    EXPECT_EQ(p.frame, QByteArray(":010100000002FC\r\n"));
    EXPECT_EQ(p.replyLength, 19);
    EXPECT_EQ(p.replyDataStart, 7);
    EXPECT_EQ(p.replyDataLength, 8);
    EXPECT_EQ(info.framesInRequest, 1);
}

TEST_F(ReadRequest, VeryLargeCountStillBuildsOneFrame) {
    info.framesInRequest = 0;
    RW_VAR var = MakeVar("3x", 0, 1, 1000000);
    ReadRegister(&var);

    ASSERT_EQ(PLC_driver.sendList.size(), 1);
    // 1000000 = 0xF4240: the quantity field carries 0x4240.
    EXPECT_EQ(PLC_driver.sendList.first().frame, QByteArray(":01040000424079\r\n"));
    EXPECT_EQ(info.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 0);
}

}  // namespace
