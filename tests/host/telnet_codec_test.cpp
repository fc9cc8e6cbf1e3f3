// SPDX-License-Identifier: MIT
// The Telnet codec of rfc2217:// links, bytes in and bytes out: IAC doubled both ways,
// negotiation answered as RFC 854 and 855 ask (and never an answer answered), subnegotiations
// taken out of the data, and commands cut anywhere by the network.
#include "telnet_codec.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

QByteArray Bytes(std::initializer_list<int> values) {
    QByteArray bytes;
    for (int value : values) bytes.append(static_cast<char>(value));
    return bytes;
}

TEST(TelnetCodec, DoublesEveryIacItSends) {
    EXPECT_EQ(TelnetCodec::escape(Bytes({0x3A, 0xFF, 0x41, 0xFF, 0xFF})),
              Bytes({0x3A, 0xFF, 0xFF, 0x41, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(TelnetCodec::escape(":010300000001FB\r\n"), QByteArray(":010300000001FB\r\n"));
}

TEST(TelnetCodec, UndoublesAnIacItReceives) {
    TelnetCodec codec;
    EXPECT_EQ(codec.decode(Bytes({0x41, 0xFF, 0xFF, 0x42})), Bytes({0x41, 0xFF, 0x42}));
    EXPECT_TRUE(codec.takeAnswers().isEmpty());
}

TEST(TelnetCodec, ADoubledIacCutInTwoIsOneDataByte) {
    TelnetCodec codec;
    EXPECT_EQ(codec.decode(Bytes({0x41, 0xFF})), Bytes({0x41}));
    EXPECT_EQ(codec.decode(Bytes({0xFF, 0x42})), Bytes({0xFF, 0x42}));
}

TEST(TelnetCodec, OpensWithWillComPortOption) {
    TelnetCodec codec;
    EXPECT_EQ(codec.openingRequest(), Bytes({0xFF, 0xFB, 0x2C}));
    EXPECT_EQ(codec.comPort(), OptionState::Asked);
}

// What ser2net 4.3.11 sends on a new telnet(rfc2217) connection: WILL SGA, DO SGA, WILL ECHO,
// DONT ECHO, DO BINARY, WILL BINARY, DO COM-PORT. The client agrees to SGA and BINARY both
// ways, refuses the server's echo, leaves DONT ECHO (echo is off already) and DO COM-PORT
// (the answer to its own WILL) unanswered.
TEST(TelnetCodec, AnswersTheNegotiationOfADeviceServer) {
    TelnetCodec codec;
    codec.openingRequest();
    const QByteArray data =
        codec.decode(Bytes({0xFF, 0xFB, 0x03, 0xFF, 0xFD, 0x03, 0xFF, 0xFB, 0x01, 0xFF, 0xFE,
                            0x01, 0xFF, 0xFD, 0x00, 0xFF, 0xFB, 0x00, 0xFF, 0xFD, 0x2C}));
    EXPECT_TRUE(data.isEmpty());
    EXPECT_EQ(codec.takeAnswers(), Bytes({0xFF, 0xFD, 0x03, 0xFF, 0xFB, 0x03, 0xFF, 0xFE, 0x01,
                                          0xFF, 0xFB, 0x00, 0xFF, 0xFD, 0x00}));
    EXPECT_EQ(codec.comPort(), OptionState::Enabled);
    // ser2net answers the client's WILL SGA with another DO SGA: a request for the state the
    // option is in already goes unanswered, so nothing loops.
    codec.decode(Bytes({0xFF, 0xFD, 0x03, 0xFF, 0xFB, 0x00, 0xFF, 0xFD, 0x2C}));
    EXPECT_TRUE(codec.takeAnswers().isEmpty());
}

struct NegotiationCase {
    const char *name;
    QByteArray received;
    QByteArray answered;
};

class NegotiationTest : public ::testing::TestWithParam<NegotiationCase> {};

TEST_P(NegotiationTest, AnswersAsRfc854Asks) {
    TelnetCodec codec;
    EXPECT_TRUE(codec.decode(GetParam().received).isEmpty());
    EXPECT_EQ(codec.takeAnswers(), GetParam().answered);
}

const NegotiationCase kNegotiationCases[] = {
    {"DoEchoIsRefused", Bytes({0xFF, 0xFD, 0x01}), Bytes({0xFF, 0xFC, 0x01})},
    {"WillEchoIsRefused", Bytes({0xFF, 0xFB, 0x01}), Bytes({0xFF, 0xFE, 0x01})},
    {"DoTerminalTypeIsRefused", Bytes({0xFF, 0xFD, 0x18}), Bytes({0xFF, 0xFC, 0x18})},
    {"WillComPortFromTheServerIsRefused", Bytes({0xFF, 0xFB, 0x2C}), Bytes({0xFF, 0xFE, 0x2C})},
    {"DoComPortIsAccepted", Bytes({0xFF, 0xFD, 0x2C}), Bytes({0xFF, 0xFB, 0x2C})},
    {"DoBinaryIsAccepted", Bytes({0xFF, 0xFD, 0x00}), Bytes({0xFF, 0xFB, 0x00})},
    {"WillSuppressGoAheadIsAccepted", Bytes({0xFF, 0xFB, 0x03}), Bytes({0xFF, 0xFD, 0x03})},
    {"DontForAnOptionOffGoesUnanswered", Bytes({0xFF, 0xFE, 0x00}), QByteArray()},
    {"WontForAnOptionOffGoesUnanswered", Bytes({0xFF, 0xFC, 0x01}), QByteArray()},
    {"ASecondDoIsNotAnsweredAgain", Bytes({0xFF, 0xFD, 0x00, 0xFF, 0xFD, 0x00}),
     Bytes({0xFF, 0xFB, 0x00})},
    {"WontAfterWillIsAcknowledged", Bytes({0xFF, 0xFB, 0x03, 0xFF, 0xFC, 0x03, 0xFF, 0xFC, 0x03}),
     Bytes({0xFF, 0xFD, 0x03, 0xFF, 0xFE, 0x03})},
    {"DontAfterDoIsAcknowledged", Bytes({0xFF, 0xFD, 0x00, 0xFF, 0xFE, 0x00}),
     Bytes({0xFF, 0xFB, 0x00, 0xFF, 0xFC, 0x00})},
};

INSTANTIATE_TEST_SUITE_P(Requests, NegotiationTest, ::testing::ValuesIn(kNegotiationCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(TelnetCodec, AServerThatRefusesComPortIsNotAnswered) {
    TelnetCodec codec;
    codec.openingRequest();
    codec.decode(Bytes({0xFF, 0xFE, 0x2C}));
    EXPECT_EQ(codec.comPort(), OptionState::Refused);
    EXPECT_TRUE(codec.takeAnswers().isEmpty());
}

TEST(TelnetCodec, TakesAComPortSubnegotiationOutOfTheData) {
    TelnetCodec codec;
    const QByteArray data = codec.decode(
        Bytes({0x3A, 0x30, 0xFF, 0xFA, 0x2C, 0x65, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0, 0x31}));
    EXPECT_EQ(data, QByteArray(":01"));
    const QList<ComPortMessage> messages = codec.takeComPortMessages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_EQ(messages[0].command, 101);
    EXPECT_EQ(messages[0].value, Bytes({0x00, 0x00, 0x25, 0x80}));
    EXPECT_TRUE(codec.takeComPortMessages().isEmpty());
}

TEST(TelnetCodec, UndoublesAnIacInsideASubnegotiation) {
    TelnetCodec codec;
    codec.decode(Bytes({0xFF, 0xFA, 0x2C, 0x65, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xF0}));
    const QList<ComPortMessage> messages = codec.takeComPortMessages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_EQ(messages[0].value, Bytes({0x00, 0x00, 0x00, 0xFF}));
}

TEST(TelnetCodec, DropsSubnegotiationsOfOtherOptionsAndOtherCommands) {
    TelnetCodec codec;
    // Terminal type (24) subnegotiation, no operation (241), go-ahead (249).
    const QByteArray data = codec.decode(
        Bytes({0x41, 0xFF, 0xFA, 0x18, 0x01, 0xFF, 0xF0, 0x42, 0xFF, 0xF1, 0x43, 0xFF, 0xF9}));
    EXPECT_EQ(data, QByteArray("ABC"));
    EXPECT_TRUE(codec.takeComPortMessages().isEmpty());
}

// A server that never ends a subnegotiation cannot make the client keep what it sends.
TEST(TelnetCodec, KeepsAtMostTheStartOfALongSubnegotiation) {
    TelnetCodec codec;
    codec.decode(Bytes({0xFF, 0xFA, 0x2C, 0x65}) + QByteArray(1000, 'x') + Bytes({0xFF, 0xF0}));
    const QList<ComPortMessage> messages = codec.takeComPortMessages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_EQ(messages[0].value, QByteArray(62, 'x'));
    EXPECT_EQ(codec.decode("A"), QByteArray("A"));
}

// Outside binary mode a lone CR travels as CR NUL; once the server sends in binary a NUL is data.
TEST(TelnetCodec, DropsTheNulAfterACrOnlyOutsideBinaryMode) {
    TelnetCodec codec;
    EXPECT_EQ(codec.decode(Bytes({0x41, 0x0D, 0x00, 0x42})), Bytes({0x41, 0x0D, 0x42}));
    codec.decode(Bytes({0xFF, 0xFB, 0x00}));
    EXPECT_EQ(codec.decode(Bytes({0x41, 0x0D, 0x00, 0x42})), Bytes({0x41, 0x0D, 0x00, 0x42}));
}

// Data, a doubled IAC, a negotiation and a COM-PORT answer, cut in two at every point: the
// data, the answers and the messages are the same as in one piece.
TEST(TelnetCodec, CommandsCutAnywhereGiveTheSameResult) {
    const QByteArray wire = Bytes({0x3A, 0x30, 0xFF, 0xFF, 0xFF, 0xFD, 0x00, 0x31, 0xFF, 0xFA, 0x2C,
                                   0x67, 0x03, 0xFF, 0xF0, 0x0D, 0x0A});
    for (int cut = 0; cut <= wire.size(); ++cut) {
        TelnetCodec codec;
        QByteArray data = codec.decode(wire.left(cut));
        data += codec.decode(wire.mid(cut));
        EXPECT_EQ(data, Bytes({0x3A, 0x30, 0xFF, 0x31, 0x0D, 0x0A})) << "cut at " << cut;
        EXPECT_EQ(codec.takeAnswers(), Bytes({0xFF, 0xFB, 0x00})) << "cut at " << cut;
        const QList<ComPortMessage> messages = codec.takeComPortMessages();
        ASSERT_EQ(messages.size(), 1) << "cut at " << cut;
        EXPECT_EQ(messages[0].command, 103);
        EXPECT_EQ(messages[0].value, Bytes({0x03}));
    }
}

}  // namespace
