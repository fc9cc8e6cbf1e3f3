// SPDX-License-Identifier: MIT
// The live view's screen: values as text, highlighted changes, lines cut to the screen.
#include "watch_view.h"

#include <gtest/gtest.h>

namespace {

struct ValueTextCase {
    ValueKind kind;
    quint32 value;
    const char *expected;
};

TEST(ValueText, ShowsBitsPlainAndWordsInDecimalAndHex) {
    const ValueTextCase cases[] = {
        {ValueKind::Bit, 1, "1"},
        {ValueKind::Register, 4660, "4660 (0x1234)"},
        {ValueKind::Register, 10, "10 (0x000A)"},
        {ValueKind::DoubleWord, 1234567, "1234567 (0x0012D687)"},
    };
    for (const ValueTextCase &row : cases) EXPECT_EQ(ValueText(row.kind, row.value), row.expected);
}

VariableValues Row(const char *name, const char *area, QList<quint32> values,
                   bool confirmed = true) {
    Variable variable;
    variable.name = name;
    variable.station = 1;
    variable.area = area;
    variable.addressText = "0";
    return {variable, values, confirmed, std::nullopt};
}

const ScreenSize kWide{120, 24};

TEST(WatchLines, HighlightsOnlyTheValuesThatChanged) {
    const QList<VariableValues> before{Row("level", "4x", {10, 20}), Row("pump", "0x", {1})};
    const QList<VariableValues> now{Row("level", "4x", {10, 21}), Row("pump", "0x", {1})};
    const QStringList lines = WatchLines(3, now, before, LineHealth(), kWide);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines[0].startsWith("modbus-ascii-host --watch  pass 3  "))
        << lines[0].toStdString();
    EXPECT_EQ(lines[1], "name                 station area       address   values");
    EXPECT_EQ(
        lines[2],
        "level                      1 4x         0         10 (0x000A) \x1b[7m21 (0x0015)\x1b[0m");
    EXPECT_EQ(lines[3], "pump                       1 0x         0         1");
    EXPECT_EQ(lines[4], "");
}

TEST(WatchLines, TheFirstDrawingHighlightsNothing) {
    const QStringList lines = WatchLines(1, {Row("level", "4x", {7})}, {}, LineHealth(), kWide);
    EXPECT_EQ(lines[2], "level                      1 4x         0         7 (0x0007)");
}

TEST(WatchLines, AValueTheSlaveDidNotConfirmIsAQuestionMark) {
    const QStringList lines = WatchLines(2, {Row("level", "4x", {7}, false)},
                                         {Row("level", "4x", {6})}, LineHealth(), kWide);
    EXPECT_EQ(lines[2], "level                      1 4x         0         ?");
}

TEST(WatchLines, AValueConfirmedAgainIsNotComparedWithAnUnconfirmedOne) {
    const QStringList lines = WatchLines(3, {Row("level", "4x", {7})},
                                         {Row("level", "4x", {6}, false)}, LineHealth(), kWide);
    EXPECT_EQ(lines[2], "level                      1 4x         0         7 (0x0007)");
}

TEST(WatchLines, HealthLinesCloseTheScreen) {
    LineHealth health;
    Exchange silence;
    health.record(":050300000001F7\r\n", 41, silence);
    const QStringList lines = WatchLines(1, {Row("level", "4x", {7})}, {}, health, kWide);
    EXPECT_EQ(lines.last(), "station 5: 0/1 accepted, noReply 1");
}

TEST(WatchLines, LinesAreCutToTheWidthWithoutCountingHighlights) {
    const QStringList lines =
        WatchLines(2, {Row("level", "4x", {300})}, {Row("level", "4x", {299})}, LineHealth(),
                   ScreenSize{54, 24});
    // 50 columns before the values leave 4 of "values" and of "300 (0x012C)".
    EXPECT_EQ(lines[1], "name                 station area       address   valu");
    EXPECT_EQ(lines[2], "level                      1 4x         0         \x1b[7m300 \x1b[0m");
}

TEST(WatchLines, RowsThatDoNotFitAreCounted) {
    QList<VariableValues> rows;
    for (int i = 0; i < 10; ++i) rows.append(Row("r", "0x", {0}));
    // 8 lines: title, header, 4 rows, the note, the blank line before the health lines.
    const QStringList lines = WatchLines(1, rows, {}, LineHealth(), ScreenSize{80, 8});
    ASSERT_EQ(lines.size(), 8);
    EXPECT_EQ(lines[6], "... 6 more variables: enlarge the window");
}

}  // namespace
