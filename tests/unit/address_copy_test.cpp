// SPDX-License-Identifier: MIT
// Addresses of copied variables: texts, encoded addresses and the question past the limit.
#include <gtest/gtest.h>

#include <QString>
#include <QStringList>
#include <QVector>

#include "modbus_ascii_master_api.h"

namespace {

const char kQuestionChinese[] = "复制已超出地址最大限制, 是否继续复制?";
const char kQuestionEnglish[] =
    "Copy has exceeded the maximum limit of the address, and whether to continue copying?";

struct CopyResult {
    QString question;
    QStringList texts;
    QVector<int> addresses;
};

CopyResult Copy(const char *areaName, int start, int copies, int step, int language = 1) {
    CopyResult result;
    result.texts << QStringLiteral("stale");
    result.addresses << -7;
    result.question = AddrMutilCopy(QString::fromLatin1(areaName), start, copies, step,
                                    &result.texts, &result.addresses, language);
    return result;
}

TEST(AddressCopyTest, WordCopiesFollowTheStep) {
    const CopyResult r = Copy("4x", 100, 4, 2);
    EXPECT_EQ(r.texts, QStringList({"102", "104", "106"}));
    EXPECT_EQ(r.addresses, QVector<int>({102, 104, 106}));
    EXPECT_TRUE(r.question.isEmpty());
}

TEST(AddressCopyTest, BitCopiesCarryIntoTheNextRegister) {
    const CopyResult r = Copy("4x_bit", 16 * 10 + 14, 3, 1);
    EXPECT_EQ(r.texts, QStringList({"10.15", "11.00"}));
    EXPECT_EQ(r.addresses, QVector<int>({175, 176}));
    EXPECT_TRUE(r.question.isEmpty());
}

TEST(AddressCopyTest, BitCopiesAreWrittenWithTwoBitDigits) {
    const CopyResult r = Copy("3x_bit", 1234 * 16 + 3, 2, 2);
    EXPECT_EQ(r.texts, QStringList({"1234.05"}));
    EXPECT_EQ(r.addresses, QVector<int>({19749}));
}

TEST(AddressCopyTest, WordCopiesPastTheEndGetTheLimitEntry) {
    const CopyResult r = Copy("4x", 65534, 4, 1);
    EXPECT_EQ(r.texts, QStringList({"65535", "65536", "65535"}));
    EXPECT_EQ(r.addresses, QVector<int>({65535, 65536, 65536}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, DoubleCopiesPastTheEndGetTheLimitEntry) {
    const CopyResult r = Copy("3x_double", 65531, 4, 2);
    EXPECT_EQ(r.texts, QStringList({"65533", "65535", "65534"}));
    EXPECT_EQ(r.addresses, QVector<int>({65533, 65535, 65535}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, BitCopiesPastTheEndGetTheLimitEntry) {
    const CopyResult r = Copy("4x_bit", 1048574, 4, 1);
    EXPECT_EQ(r.texts, QStringList({"65535.15", "65535.15", "65535.15"}));
    EXPECT_EQ(r.addresses, QVector<int>({1048575, 1048576, 1048576}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, OtherAreaStringsAreCopiedAsWholeRegisters) {
    const CopyResult r = Copy("7x", 65535, 3, 1);
    EXPECT_EQ(r.texts, QStringList({"65536", "65535"}));
    EXPECT_EQ(r.addresses, QVector<int>({65536, 65536}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, EachCopyIsTestedByItself) {
    const CopyResult r = Copy("4x", 65540, 4, -2);
    EXPECT_EQ(r.texts, QStringList({"65535", "65536", "65534"}));
    EXPECT_EQ(r.addresses, QVector<int>({65536, 65536, 65534}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, NegativeAddressesAreWrittenAsUnsigned) {
    const CopyResult r = Copy("4x", -3, 2, 1);
    EXPECT_EQ(r.texts, QStringList({"4294967294"}));
    EXPECT_EQ(r.addresses, QVector<int>({-2}));
    EXPECT_TRUE(r.question.isEmpty());
}

TEST(AddressCopyTest, CopiesPastTheIntRangeGetTheLimitEntry) {
    const CopyResult r = Copy("4x", 2147483646, 3, 1);
    EXPECT_EQ(r.texts, QStringList({"65535", "65535"}));
    EXPECT_EQ(r.addresses, QVector<int>({65536, 65536}));
    EXPECT_EQ(r.question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, OneOrNoCopyGivesNothing) {
    for (int copies : {1, 0, -3}) {
        SCOPED_TRACE(copies);
        const CopyResult r = Copy("4x", 65535, copies, 1);
        EXPECT_TRUE(r.texts.isEmpty());
        EXPECT_TRUE(r.addresses.isEmpty());
        EXPECT_TRUE(r.question.isEmpty());
    }
}

TEST(AddressCopyTest, QuestionComesInTheChosenLanguage) {
    EXPECT_EQ(Copy("4x", 65535, 3, 1, 0).question, QString::fromUtf8(kQuestionChinese));
    EXPECT_EQ(Copy("4x", 65535, 3, 1, 1).question, QString::fromUtf8(kQuestionEnglish));
}

TEST(AddressCopyTest, OtherLanguageFlagsGetNoQuestionButTheLimitEntries) {
    const CopyResult r = Copy("4x", 65535, 3, 1, 3);
    EXPECT_EQ(r.texts, QStringList({"65536", "65535"}));
    EXPECT_EQ(r.addresses, QVector<int>({65536, 65536}));
    EXPECT_TRUE(r.question.isEmpty());
}

TEST(AddressCopyTest, NullContainersStillGiveTheQuestion) {
    EXPECT_EQ(AddrMutilCopy(QStringLiteral("4x"), 65535, 3, 1, nullptr, nullptr, 1),
              QString::fromUtf8(kQuestionEnglish));
}

}  // namespace
