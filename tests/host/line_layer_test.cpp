// SPDX-License-Identifier: MIT
// The host's line layer: which frames answer the request in flight, and frame assembly.
#include "line_layer.h"

#include <gtest/gtest.h>

#include <ostream>

namespace {

struct ReplyCase {
    const char *name;
    const char *request;
    const char *reply;
    FrameKind expected;
};

// LRCs of the frames below were worked out by hand (two's complement of the byte sum).
const ReplyCase kReplyCases[] = {
    {"read_answer", ":010300000001FB\r\n", ":010302002AD0\r\n", FrameKind::Answer},
    {"read_answer_lower_case_digits", ":010300000001FB\r\n", ":010302002ad0\r\n",
     FrameKind::Answer},
    {"read_from_other_station", ":010300000001FB\r\n", ":020302002ACF\r\n",
     FrameKind::OtherStation},
    {"read_exception", ":010300000001FB\r\n", ":0183027A\r\n", FrameKind::Exception},
    {"read_exception_too_long", ":010300000001FB\r\n", ":0183020377\r\n", FrameKind::WrongLength},
    {"read_answered_by_other_function", ":010300000001FB\r\n", ":0104020001F8\r\n",
     FrameKind::OtherFunction},
    {"read_answered_with_two_registers", ":010300000001FB\r\n", ":01030400010002F5\r\n",
     FrameKind::WrongLength},
    {"read_answered_by_a_write_echo", ":010300000001FB\r\n", ":0106000A1234A9\r\n",
     FrameKind::OtherFunction},
    {"read_bad_lrc", ":010300000001FB\r\n", ":010302002AD1\r\n", FrameKind::Garbled},
    {"read_non_hex_digit", ":010300000001FB\r\n", ":01030200G2AD0\r\n", FrameKind::Garbled},
    {"read_odd_digit_count", ":010300000001FB\r\n", ":010302002AD\r\n", FrameKind::Garbled},
    {"read_without_cr", ":010300000001FB\r\n", ":010302002AD0\n", FrameKind::Garbled},
    {"read_too_short_to_be_a_reply", ":010300000001FB\r\n", ":0103FC\r\n", FrameKind::Garbled},
    {"coils_ten_in_two_bytes", ":0101000A000AEA\r\n", ":0101020501F6\r\n", FrameKind::Answer},
    {"coils_ten_in_one_byte", ":0101000A000AEA\r\n", ":01010105F8\r\n", FrameKind::WrongLength},
    {"single_write_echo", ":0106000A1234A9\r\n", ":0106000A1234A9\r\n", FrameKind::Answer},
    {"single_write_echo_of_other_value", ":0106000A1234A9\r\n", ":0106000A1235A8\r\n",
     FrameKind::OtherRequest},
    {"single_write_echo_of_other_register", ":0106000A1234A9\r\n", ":0106000B1234A8\r\n",
     FrameKind::OtherRequest},
    {"single_write_short_echo", ":0106000A1234A9\r\n", ":0106000A12DD\r\n", FrameKind::WrongLength},
    {"coil_write_echo", ":0105000CFF00EF\r\n", ":0105000CFF00EF\r\n", FrameKind::Answer},
    {"multiple_write_answer", ":01100020000204000100020304BF\r\n", ":0110001E0005CC\r\n",
     FrameKind::OtherRequest},
    {"multiple_write_answer_of_other_quantity", ":0110001E00050A00010002000300040005B3\r\n",
     ":0110001E0004CD\r\n", FrameKind::OtherRequest},
    {"multiple_write_answer_of_other_address", ":0110001E00050A00010002000300040005B3\r\n",
     ":0110001F0005CB\r\n", FrameKind::OtherRequest},
};

// Names the row in test listings instead of dumping its bytes.
void PrintTo(const ReplyCase &row, std::ostream *stream) {
    *stream << row.name;
}

class ClassifyReplyTest : public ::testing::TestWithParam<ReplyCase> {};

TEST_P(ClassifyReplyTest, JudgesTheReplyAgainstTheRequest) {
    const ReplyCase &row = GetParam();
    EXPECT_EQ(ClassifyReply(row.request, row.reply), row.expected)
        << FrameKindName(ClassifyReply(row.request, row.reply));
}

INSTANTIATE_TEST_SUITE_P(Frames, ClassifyReplyTest, ::testing::ValuesIn(kReplyCases),
                         [](const ::testing::TestParamInfo<ReplyCase> &info) {
                             return std::string(info.param.name);
                         });

TEST(ClassifyReply, AMultipleWriteIsAnsweredByItsAddressAndQuantity) {
    EXPECT_EQ(ClassifyReply(":0110001E00050A00010002000300040005B3\r\n", ":0110001E0005CC\r\n"),
              FrameKind::Answer);
}

TEST(ClassifyReply, OnlyAnswersAndExceptionsGoToTheDriver) {
    const FrameKind handed[] = {FrameKind::Answer, FrameKind::Exception};
    const FrameKind stray[] = {FrameKind::Garbled,       FrameKind::OtherStation,
                               FrameKind::OtherFunction, FrameKind::WrongLength,
                               FrameKind::OtherRequest,  FrameKind::Late};
    for (FrameKind kind : handed) EXPECT_TRUE(IsHandedToDriver(kind)) << FrameKindName(kind);
    for (FrameKind kind : stray) EXPECT_FALSE(IsHandedToDriver(kind)) << FrameKindName(kind);
}

TEST(ParseRequest, ReadsStationFunctionAddressAndQuantity) {
    const std::optional<RequestHead> read = ParseRequest(":0101000A000AEA\r\n");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->station, 1);
    EXPECT_EQ(read->function, 1);
    EXPECT_EQ(read->address, 10);
    EXPECT_EQ(read->quantity, 10);
    const std::optional<RequestHead> single = ParseRequest(":0106000A1234A9\r\n");
    ASSERT_TRUE(single);
    EXPECT_EQ(single->function, 6);
    EXPECT_EQ(single->address, 10);
    EXPECT_EQ(single->quantity, 1);
    const std::optional<RequestHead> multiple =
        ParseRequest(":0110001E00050A00010002000300040005B3\r\n");
    ASSERT_TRUE(multiple);
    EXPECT_EQ(multiple->address, 30);
    EXPECT_EQ(multiple->quantity, 5);
    EXPECT_FALSE(ParseRequest(":0106000A1234AA\r\n"));
}

TEST(FrameAssembler, CutsFramesAndCountsNoiseBetweenThem) {
    FrameAssembler assembler;
    const QList<QByteArray> frames = assembler.feed("xy:010302002AD0\r\n\r:0106000A1234A9\r\n");
    ASSERT_EQ(frames.size(), 2);
    EXPECT_EQ(frames[0], ":010302002AD0\r\n");
    EXPECT_EQ(frames[1], ":0106000A1234A9\r\n");
    EXPECT_EQ(assembler.takeNoiseCharacters(), 3);
    EXPECT_EQ(assembler.takeNoiseCharacters(), 0);
}

TEST(FrameAssembler, JoinsAFrameThatArrivesInPieces) {
    FrameAssembler assembler;
    EXPECT_TRUE(assembler.feed(":01030200").isEmpty());
    EXPECT_TRUE(assembler.inFrame());
    const QList<QByteArray> frames = assembler.feed("2AD0\r\n");
    ASSERT_EQ(frames.size(), 1);
    EXPECT_EQ(frames[0], ":010302002AD0\r\n");
    EXPECT_FALSE(assembler.inFrame());
}

TEST(FrameAssembler, ANewStartEndsTheUnfinishedFrameAsABrokenPiece) {
    FrameAssembler assembler;
    const QList<QByteArray> frames = assembler.feed(":0103020:010302002AD0\r\n");
    ASSERT_EQ(frames.size(), 2);
    EXPECT_EQ(frames[0], ":0103020");
    EXPECT_EQ(frames[1], ":010302002AD0\r\n");
    EXPECT_EQ(ClassifyReply(":010300000001FB\r\n", frames[0]), FrameKind::Garbled);
}

TEST(FrameAssembler, AnUnfinishedFrameCanBeTakenWhenItsRestNeverComes) {
    FrameAssembler assembler;
    assembler.feed(":0103020");
    EXPECT_EQ(assembler.takePartial(), ":0103020");
    EXPECT_FALSE(assembler.inFrame());
    EXPECT_EQ(assembler.takePartial(), "");
}

TEST(FrameAssembler, AFrameThatNeverEndsIsCutOff) {
    FrameAssembler assembler;
    const QList<QByteArray> frames =
        assembler.feed(":" + QByteArray(FrameAssembler::kMaxFrameCharacters, '0'));
    ASSERT_EQ(frames.size(), 1);
    EXPECT_EQ(frames[0].size(), FrameAssembler::kMaxFrameCharacters);
    EXPECT_FALSE(assembler.inFrame());
}

}  // namespace
