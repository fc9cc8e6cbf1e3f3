// SPDX-License-Identifier: MIT
// Address texts: conversion to encoded addresses, the data-kind check and the full check with
// its messages in both languages.
#include <gtest/gtest.h>

#include <QString>
#include <ostream>

#include "driver_internal.h"
#include "modbus_ascii_master_api.h"

namespace {

// ---- AddrStringToInt ------------------------------------------------------------------------

struct ConversionCase {
    const char *area;
    const char *text;
    int expected;
};

std::ostream &operator<<(std::ostream &os, const ConversionCase &c) {
    return os << c.area << " \"" << c.text << "\" -> " << c.expected;
}

class AddressConversionTest : public ::testing::TestWithParam<ConversionCase> {};

TEST_P(AddressConversionTest, GivesTheEncodedAddress) {
    const ConversionCase &c = GetParam();
    EXPECT_EQ(AddrStringToInt(QString::fromLatin1(c.area), QString::fromLatin1(c.text)),
              c.expected);
}

// Whole-number texts are one base-10 integer; leading and trailing white space and a plus
// sign are accepted by the conversion, anything else that is not a digit is not.
const ConversionCase kWholeNumberTexts[] = {
    {"4x", "0", 0},
    {"4x", "40001", 40001},
    {"4x", "65535", 65535},
    {"4x", "65536", 65536},  // no range test here
    {"4x", "-5", -5},
    {"4x", "+5", 5},
    {"4x", " 5", 5},
    {"4x", "5 ", 5},
    {"4x", "007", 7},
    {"4x", "2147483647", 2147483647},
    {"4x", "", -1},
    {"4x", " ", -1},
    {"4x", "0x10", -1},
    {"4x", "1e3", -1},
    {"4x", "2147483648", -1},
    {"4x", "99999999999", -1},
    {"4x", "12.5", -1},
    {"4x", "1.2.3", -1},
    {"4x", "abc", -1},
    {"4x", "1 2", -1},
    {"0x", "17", 17},
    {"0x", "0x10", -1},
    {"1x", "9999", 9999},
    {"1x", "", -1},
    {"3x", "30001", 30001},
    {"3x", "99999999999", -1},
    {"3x_double", "65534", 65534},
    {"3x_double", "1.5", -1},
    {"4x_double", "65535", 65535},
    {"4x_double", "-1", -1},
    {"5x", "123", 123},  // other area strings convert like whole-register areas
    {"4X_bit", "100", 100},
    {"4X_bit", "100.15", -1},
};

INSTANTIATE_TEST_SUITE_P(WholeNumbers, AddressConversionTest,
                         ::testing::ValuesIn(kWholeNumberTexts));

// "ddddd.DD": register × 16 + bit, the bit 0..15 in at most two characters.
const ConversionCase kRegisterBitTexts[] = {
    {"3x_bit", "100.15", 1615},
    {"3x_bit", "100.05", 1605},
    {"3x_bit", "100.5", 1605},
    {"3x_bit", "0.0", 0},
    {"3x_bit", "0.00", 0},
    {"3x_bit", "65535.15", 1048575},
    {"3x_bit", "65536.0", 1048576},  // the register part is not range-tested
    {"3x_bit", "-1.0", -16},
    {"3x_bit", "134217727.15", 2147483647},
    {"3x_bit", "134217728.0", -1},  // would not fit an int
    {"3x_bit", "100.16", -1},
    {"3x_bit", "100.015", -1},
    {"3x_bit", "100.-1", -1},
    {"3x_bit", "100", -1},
    {"3x_bit", "1.2.3", -1},
    {"3x_bit", "100.", -1},
    {"3x_bit", ".5", -1},
    {"3x_bit", "", -1},
    {"3x_bit", "a.5", -1},
    {"3x_bit", "0x1.2", -1},
    {"3x_bit", "99999999999.1", -1},
    {"4x_bit", "10.14", 174},
    {"4x_bit", "100.+5", 1605},
    {"4x_bit", "100. 5", 1605},
    {"4x_bit", " 100.5", 1605},
    {"4x_bit", "100.015", -1},
    {"4x_bit", "100.16", -1},
    {"4x_bit", "100", -1},
    {"4x_bit", "65535.15", 1048575},
    {"4x_bit", "", -1},
};

INSTANTIATE_TEST_SUITE_P(RegisterBits, AddressConversionTest,
                         ::testing::ValuesIn(kRegisterBitTexts));

// ---- Messages -------------------------------------------------------------------------------

enum class Msg {
    kNone,
    kKindMismatch,
    kEmpty,
    kBlank,
    kBitFormat,
    kDoubleFormat,
    kPlainFormat,
    kUnknownArea
};

// The texts the configuration tool shows, written out as it shows them.
QString ExpectedText(Msg msg, int language) {
    struct Texts {
        const char *chinese;
        const char *english;
    };
    Texts texts = {"", ""};
    switch (msg) {
        case Msg::kNone:
            break;
        case Msg::kKindMismatch:
            texts = {"寄存器和地址类型不匹配!", "The register and address type isn't match!"};
            break;
        case Msg::kEmpty:
            texts = {"寄存器地址不能为空!", "The register address can not be null!"};
            break;
        case Msg::kBlank:
            texts = {"寄存器地址不能包含空格!", "The register address can not contain spaces!"};
            break;
        case Msg::kBitFormat:
            texts = {"地址格式: ddddd.DD, 范围: 0.0~65535.15, DD位地址0~15",
                     "Address Format: ddddd.DD, range: 0.0~65535.15, DD-bit addresses 0~15"};
            break;
        case Msg::kDoubleFormat:
            texts = {"地址格式: ddddd, 范围: 0~65534", "Address Format: ddddd, range: 0~65534"};
            break;
        case Msg::kPlainFormat:
            texts = {"地址格式: ddddd, 范围: 0~65535", "Address Format:ddddd, range: 0.0~65535"};
            break;
        case Msg::kUnknownArea:
            texts = {"无此寄存器!", "Didn't have this register!"};
            break;
    }
    if (language == 0) return QString::fromUtf8(texts.chinese);
    if (language == 1) return QString::fromUtf8(texts.english);
    return QString();
}

// ---- fn_checkAddrType -----------------------------------------------------------------------

struct KindCase {
    const char *area;
    int dataKind;
    bool fits;
};

std::ostream &operator<<(std::ostream &os, const KindCase &c) {
    return os << c.area << " kind " << c.dataKind;
}

class AddressKindTest : public ::testing::TestWithParam<std::tuple<KindCase, int>> {};

TEST_P(AddressKindTest, AcceptsOnlyTheAreasDataKind) {
    const KindCase &c = std::get<0>(GetParam());
    const int language = std::get<1>(GetParam());
    QString message = QStringLiteral("untouched");
    const int result = fn_checkAddrType(message, QString::fromLatin1(c.area), language, c.dataKind);
    if (c.fits) {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(message, QStringLiteral("untouched"));
    } else {
        EXPECT_EQ(result, -2);
        const bool speaks = language == 0 || language == 1;
        EXPECT_EQ(message, speaks ? ExpectedText(Msg::kKindMismatch, language)
                                  : QStringLiteral("untouched"));
    }
}

const KindCase kKindCases[] = {
    {"0x", 0, true},         {"0x", 1, false},        {"1x", 0, true},
    {"1x", 1, false},        {"3x_bit", 0, true},     {"3x_bit", 1, false},
    {"4x_bit", 0, true},     {"4x_bit", 1, false},    {"3x", 1, true},
    {"3x", 0, false},        {"4x", 1, true},         {"4x", 0, false},
    {"3x_double", 1, true},  {"3x_double", 0, false}, {"4x_double", 1, true},
    {"4x_double", 0, false}, {"5x", 1, true},         {"5x", 0, false},
    {"0X", 1, true},         {"4x", 2, false},        {"0x", -1, false},
};

INSTANTIATE_TEST_SUITE_P(AllAreas, AddressKindTest,
                         ::testing::Combine(::testing::ValuesIn(kKindCases),
                                            ::testing::Values(0, 1, 2)));

// ---- CheckAddrCorrect -----------------------------------------------------------------------

constexpr int kUntouched = 12345;

struct CheckCase {
    const char *area;
    const char *text;
    int length;
    int dataKind;
    Msg message;
    int address;  // stored through the pointer; kUntouched when the check ends before parsing
};

std::ostream &operator<<(std::ostream &os, const CheckCase &c) {
    return os << c.area << " \"" << c.text << "\" length " << c.length << " kind " << c.dataKind;
}

class AddressCheckTest : public ::testing::TestWithParam<std::tuple<CheckCase, int>> {};

TEST_P(AddressCheckTest, GivesTheMessageAndTheAddress) {
    const CheckCase &c = std::get<0>(GetParam());
    const int language = std::get<1>(GetParam());
    int address = kUntouched;
    const QString result =
        CheckAddrCorrect(QString::fromLatin1(c.area), QString::fromLatin1(c.text), &address,
                         c.length, language, c.dataKind);
    EXPECT_EQ(result, ExpectedText(c.message, language));
    EXPECT_EQ(address, c.address);
}

const CheckCase kPlainAreaCases[] = {
    {"4x", "40001", 1, 1, Msg::kNone, 40001},
    {"4x", "0", 1, 1, Msg::kNone, 0},
    {"4x", "0", 65536, 1, Msg::kNone, 0},
    {"4x", "65535", 1, 1, Msg::kNone, 65535},
    {"4x", "65535", 2, 1, Msg::kPlainFormat, 65535},
    {"4x", "65536", 1, 1, Msg::kPlainFormat, 65536},
    {"4x", "2147483647", 1, 1, Msg::kPlainFormat, 2147483647},
    {"4x", "+5", 1, 1, Msg::kNone, 5},
    {"4x", "-5", 1, 1, Msg::kPlainFormat, -5},
    {"4x", "0x10", 1, 1, Msg::kPlainFormat, -1},
    {"4x", "99999999999", 1, 1, Msg::kPlainFormat, -1},
    {"4x", "100.15", 1, 1, Msg::kPlainFormat, -1},
    {"4x", "1.2.3", 1, 1, Msg::kPlainFormat, -1},
    {"4x", "", 1, 1, Msg::kEmpty, kUntouched},
    {"4x", " 40001", 1, 1, Msg::kBlank, kUntouched},
    {"4x", "40001 ", 1, 1, Msg::kBlank, kUntouched},
    {"4x", "4 0", 1, 1, Msg::kBlank, kUntouched},
    {"4x", "40001", 1, 0, Msg::kKindMismatch, kUntouched},
    {"4x", "", 1, 0, Msg::kKindMismatch, kUntouched},
    {"3x", "30001", 1, 1, Msg::kNone, 30001},
    {"3x", "65535", 2, 1, Msg::kPlainFormat, 65535},
    {"3x", "abc", 1, 1, Msg::kPlainFormat, -1},
    {"3x", "", 1, 1, Msg::kEmpty, kUntouched},
    {"0x", "0", 1, 0, Msg::kNone, 0},
    {"0x", "65535", 1, 0, Msg::kNone, 65535},
    {"0x", "65535", 2, 0, Msg::kPlainFormat, 65535},
    {"0x", "-1", 1, 0, Msg::kPlainFormat, -1},
    {"0x", "1 ", 1, 0, Msg::kBlank, kUntouched},
    {"0x", "17", 1, 1, Msg::kKindMismatch, kUntouched},
    {"1x", "10000", 8, 0, Msg::kNone, 10000},
    {"1x", "65536", 1, 0, Msg::kPlainFormat, 65536},
    {"1x", "99999999999", 1, 0, Msg::kPlainFormat, -1},
    {"1x", "", 1, 0, Msg::kEmpty, kUntouched},
    {"1x", "5", 1, 1, Msg::kKindMismatch, kUntouched},
};

INSTANTIATE_TEST_SUITE_P(PlainAreas, AddressCheckTest,
                         ::testing::Combine(::testing::ValuesIn(kPlainAreaCases),
                                            ::testing::Values(0, 1, 2)));

const CheckCase kDoubleAreaCases[] = {
    {"4x_double", "65534", 2, 1, Msg::kNone, 65534},
    {"4x_double", "65535", 2, 1, Msg::kDoubleFormat, 65535},
    {"4x_double", "65535", 1, 1, Msg::kNone, 65535},  // the limit is start + length
    {"4x_double", "0", 2, 1, Msg::kNone, 0},
    {"4x_double", "-1", 2, 1, Msg::kDoubleFormat, -1},
    {"4x_double", "0x10", 2, 1, Msg::kDoubleFormat, -1},
    {"4x_double", "99999999999", 2, 1, Msg::kDoubleFormat, -1},
    {"4x_double", "1.5", 2, 1, Msg::kDoubleFormat, -1},
    {"4x_double", "", 2, 1, Msg::kEmpty, kUntouched},
    {"4x_double", " 1", 2, 1, Msg::kBlank, kUntouched},
    {"4x_double", "1", 2, 0, Msg::kKindMismatch, kUntouched},
    {"3x_double", "100", 2, 1, Msg::kNone, 100},
    {"3x_double", "65535", 2, 1, Msg::kDoubleFormat, 65535},
    {"3x_double", "65536", 1, 1, Msg::kDoubleFormat, 65536},
    {"3x_double", "", 2, 1, Msg::kEmpty, kUntouched},
    {"3x_double", "1", 2, 0, Msg::kKindMismatch, kUntouched},
};

INSTANTIATE_TEST_SUITE_P(DoubleAreas, AddressCheckTest,
                         ::testing::Combine(::testing::ValuesIn(kDoubleAreaCases),
                                            ::testing::Values(0, 1, 2)));

const CheckCase kRegisterBitAreaCases[] = {
    {"3x_bit", "100.15", 1, 0, Msg::kNone, 1615},
    {"3x_bit", "100.16", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "100.015", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "100", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "1.2.3", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "100.-1", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "-1.0", 1, 0, Msg::kBitFormat, -16},
    {"3x_bit", "0x1.2", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "99999999999.1", 1, 0, Msg::kBitFormat, -1},
    {"3x_bit", "0.0", 16, 0, Msg::kNone, 0},
    {"3x_bit", "65535.15", 1, 0, Msg::kNone, 1048575},
    {"3x_bit", "65535.15", 2, 0, Msg::kBitFormat, 1048575},
    {"3x_bit", "65536.0", 1, 0, Msg::kBitFormat, 1048576},
    {"3x_bit", "", 1, 0, Msg::kEmpty, kUntouched},
    {"3x_bit", " 1.2", 1, 0, Msg::kBlank, kUntouched},
    {"3x_bit", "1. 2", 1, 0, Msg::kBlank, kUntouched},
    {"3x_bit", "100.15", 1, 1, Msg::kKindMismatch, kUntouched},
    {"4x_bit", "100.05", 1, 0, Msg::kNone, 1605},
    {"4x_bit", "100.5", 1, 0, Msg::kNone, 1605},
    {"4x_bit", "65535.14", 2, 0, Msg::kNone, 1048574},
    {"4x_bit", "65535.15", 2, 0, Msg::kBitFormat, 1048575},
    {"4x_bit", "100.16", 1, 0, Msg::kBitFormat, -1},
    {"4x_bit", "100", 1, 0, Msg::kBitFormat, -1},
    {"4x_bit", "", 1, 0, Msg::kEmpty, kUntouched},
    {"4x_bit", "1.2 ", 1, 0, Msg::kBlank, kUntouched},
    {"4x_bit", "1.2", 1, 1, Msg::kKindMismatch, kUntouched},
};

INSTANTIATE_TEST_SUITE_P(RegisterBitAreas, AddressCheckTest,
                         ::testing::Combine(::testing::ValuesIn(kRegisterBitAreaCases),
                                            ::testing::Values(0, 1, 2)));

// Area names are exact and case-sensitive; what is not one of the eight passes the kind check
// as a word area and then is not known.
const CheckCase kOtherAreaCases[] = {
    {"5x", "40001", 1, 1, Msg::kUnknownArea, 40001},
    {"5x", "abc", 1, 1, Msg::kUnknownArea, -1},
    {"4X", "40001", 1, 1, Msg::kUnknownArea, 40001},
    {"", "1", 1, 1, Msg::kUnknownArea, 1},
    {"5x", "", 1, 1, Msg::kEmpty, kUntouched},
    {"5x", "1 ", 1, 1, Msg::kBlank, kUntouched},
    {"5x", "40001", 1, 0, Msg::kKindMismatch, kUntouched},
};

INSTANTIATE_TEST_SUITE_P(OtherAreas, AddressCheckTest,
                         ::testing::Combine(::testing::ValuesIn(kOtherAreaCases),
                                            ::testing::Values(0, 1, 2)));

TEST(AddressCheckNullTest, NullAddressPointerStillGivesTheMessage) {
    EXPECT_EQ(CheckAddrCorrect(QStringLiteral("4x"), QStringLiteral("70000"), nullptr, 1, 1, 1),
              QStringLiteral("Address Format:ddddd, range: 0.0~65535"));
    EXPECT_TRUE(
        CheckAddrCorrect(QStringLiteral("4x"), QStringLiteral("7"), nullptr, 1, 1, 1).isEmpty());
}

}  // namespace
