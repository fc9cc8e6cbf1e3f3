// SPDX-License-Identifier: MIT
// The line settings as RFC 2217 carries them: the SET commands byte for byte, and the check of
// the server's answers (command + 100), a refused setting named with both values.
#include "com_port_option.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

QByteArray Bytes(std::initializer_list<int> values) {
    QByteArray bytes;
    for (int value : values) bytes.append(static_cast<char>(value));
    return bytes;
}

SerialSettings Line(int baudRate, int dataBits, char parity, int stopBits) {
    SerialSettings settings;
    settings.baudRate = baudRate;
    settings.dataBits = dataBits;
    settings.parity = parity;
    settings.stopBits = stopBits;
    return settings;
}

TEST(ComPortOption, SetBaudRate9600) {
    EXPECT_EQ(ComPortSubnegotiation(kSetBaudRate, Bytes({0x00, 0x00, 0x25, 0x80})),
              Bytes({0xFF, 0xFA, 0x2C, 0x01, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0}));
}

TEST(ComPortOption, TheDefaultLineIs9600SevenEvenOne) {
    EXPECT_EQ(ComPortSettingsRequest(SerialSettings()),
              Bytes({0xFF, 0xFA, 0x2C, 0x01, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0,  // 9600
                     0xFF, 0xFA, 0x2C, 0x02, 0x07, 0xFF, 0xF0,                    // 7 bits
                     0xFF, 0xFA, 0x2C, 0x03, 0x03, 0xFF, 0xF0,                    // even
                     0xFF, 0xFA, 0x2C, 0x04, 0x01, 0xFF, 0xF0}));                 // 1 stop
}

TEST(ComPortOption, NineteenTwoHundredEightOddTwo) {
    EXPECT_EQ(ComPortSettingsRequest(Line(19200, 8, 'O', 2)),
              Bytes({0xFF, 0xFA, 0x2C, 0x01, 0x00, 0x00, 0x4B, 0x00, 0xFF, 0xF0,  // 19200
                     0xFF, 0xFA, 0x2C, 0x02, 0x08, 0xFF, 0xF0,                    // 8 bits
                     0xFF, 0xFA, 0x2C, 0x03, 0x02, 0xFF, 0xF0,                    // odd
                     0xFF, 0xFA, 0x2C, 0x04, 0x02, 0xFF, 0xF0}));                 // 2 stop
}

TEST(ComPortOption, ParityNoneIsOne) {
    EXPECT_EQ(ComPortSettingsRequest(Line(9600, 8, 'N', 1)).mid(17, 7),
              Bytes({0xFF, 0xFA, 0x2C, 0x03, 0x01, 0xFF, 0xF0}));
}

// A value byte that is IAC is doubled, as in data.
TEST(ComPortOption, AnIacInTheBaudRateIsDoubled) {
    EXPECT_EQ(ComPortSettingsRequest(Line(65535, 8, 'N', 1)).left(12),
              Bytes({0xFF, 0xFA, 0x2C, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0}));
}

// The server's answers as they come off the wire, through the codec.
QList<ComPortMessage> Received(const QByteArray &wire) {
    TelnetCodec codec;
    codec.decode(wire);
    return codec.takeComPortMessages();
}

const QByteArray kAnswers9600SevenEvenOne =
    Bytes({0xFF, 0xFA, 0x2C, 0x65, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0,  // 9600
           0xFF, 0xFA, 0x2C, 0x66, 0x07, 0xFF, 0xF0,                    // 7 bits
           0xFF, 0xFA, 0x2C, 0x67, 0x03, 0xFF, 0xF0,                    // even
           0xFF, 0xFA, 0x2C, 0x68, 0x01, 0xFF, 0xF0});

TEST(ComPortSettingsCheck, AcceptsAnswersThatHoldWhatWasAsked) {
    ComPortSettingsCheck check{SerialSettings()};
    for (const ComPortMessage &message : Received(kAnswers9600SevenEvenOne)) check.note(message);
    EXPECT_TRUE(check.complete());
    EXPECT_FALSE(check.refusal().has_value());
    EXPECT_EQ(check.inForce(), QStringLiteral("9600 baud, data bits 7, parity even, stop bits 1"));
}

TEST(ComPortSettingsCheck, WaitsForEveryAnswerAndIgnoresNotifications) {
    ComPortSettingsCheck check{SerialSettings()};
    // SET-BAUDRATE answered, then NOTIFY-MODEMSTATE (107), which answers nothing asked.
    for (const ComPortMessage &message :
         Received(Bytes({0xFF, 0xFA, 0x2C, 0x65, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0, 0xFF, 0xFA,
                         0x2C, 0x6B, 0x00, 0xFF, 0xF0}))) {
        check.note(message);
    }
    EXPECT_FALSE(check.complete());
    EXPECT_EQ(check.firstUnanswered(), QStringLiteral("data bits"));
}

struct RefusalCase {
    const char *name;
    SerialSettings asked;
    QByteArray answer;  // one answer; the others hold what was asked
    const char *refusal;
};

class RefusalTest : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(RefusalTest, NamesTheSettingAndBothValues) {
    ComPortSettingsCheck check(GetParam().asked);
    for (const ComPortSetting &setting : ComPortSettings(GetParam().asked)) {
        check.note({setting.command + kServerCommandOffset, setting.value});
    }
    for (const ComPortMessage &message : Received(GetParam().answer)) check.note(message);
    ASSERT_TRUE(check.refusal().has_value());
    EXPECT_EQ(*check.refusal(), QLatin1String(GetParam().refusal));
}

const RefusalCase kRefusalCases[] = {
    {"Parity", Line(9600, 7, 'E', 1), Bytes({0xFF, 0xFA, 0x2C, 0x67, 0x02, 0xFF, 0xF0}),
     "parity even (it answered odd)"},
    {"BaudRate", Line(19200, 8, 'N', 1),
     Bytes({0xFF, 0xFA, 0x2C, 0x65, 0x00, 0x00, 0x25, 0x80, 0xFF, 0xF0}),
     "baud rate 19200 (it answered 9600)"},
    {"DataBits", Line(9600, 7, 'E', 1), Bytes({0xFF, 0xFA, 0x2C, 0x66, 0x08, 0xFF, 0xF0}),
     "data bits 7 (it answered 8)"},
    {"StopBits", Line(9600, 8, 'N', 2), Bytes({0xFF, 0xFA, 0x2C, 0x68, 0x03, 0xFF, 0xF0}),
     "stop bits 2 (it answered 1.5)"},
    {"ParityMark", Line(9600, 8, 'N', 1), Bytes({0xFF, 0xFA, 0x2C, 0x67, 0x04, 0xFF, 0xF0}),
     "parity none (it answered mark)"},
    {"ShortBaudRate", Line(9600, 8, 'N', 1),
     Bytes({0xFF, 0xFA, 0x2C, 0x65, 0x25, 0x80, 0xFF, 0xF0}),
     "baud rate 9600 (it answered bytes 25 80)"},
};

INSTANTIATE_TEST_SUITE_P(Answers, RefusalTest, ::testing::ValuesIn(kRefusalCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
