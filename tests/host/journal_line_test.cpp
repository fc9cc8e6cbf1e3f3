// SPDX-License-Identifier: MIT
// Event lines: a priority prefix and no time of day for the journal, the time of day for a
// terminal; standard error counts as the journal only when $JOURNAL_STREAM names it.
#include "journal_line.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <QRegularExpression>

namespace {

TEST(EventLine, CarriesItsPriorityToTheJournal) {
    const struct {
        EventPriority priority;
        const char *line;
    } cases[] = {
        {EventPriority::Error, "<3>modbus-ascii-host: /dev/ttyS1 lost"},
        {EventPriority::Warning, "<4>modbus-ascii-host: /dev/ttyS1 lost"},
        {EventPriority::Notice, "<5>modbus-ascii-host: /dev/ttyS1 lost"},
        {EventPriority::Info, "<6>modbus-ascii-host: /dev/ttyS1 lost"},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(EventLine(row.priority, "/dev/ttyS1 lost", true), row.line);
    }
}

TEST(EventLine, CarriesTheTimeOfDayToATerminal) {
    const QString line =
        EventLine(EventPriority::Warning, "station 3 set aside until 12.0 s", false);
    EXPECT_TRUE(QRegularExpression(R"(^modbus-ascii-host: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}: )"
                                   R"(station 3 set aside until 12\.0 s$)")
                    .match(line)
                    .hasMatch())
        << line.toStdString();
}

TEST(StandardErrorGoesToJournal, OnlyWhenJournalStreamNamesStandardError) {
    struct stat status {};
    ASSERT_EQ(fstat(2, &status), 0);
    const std::string own = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    const struct {
        const char *value;  // nullptr: unset
        bool expected;
    } cases[] = {{nullptr, false}, {"", false}, {"1:2", false}, {own.c_str(), true}};
    for (const auto &row : cases) {
        if (row.value == nullptr) {
            unsetenv("JOURNAL_STREAM");
        } else {
            setenv("JOURNAL_STREAM", row.value, 1);
        }
        EXPECT_EQ(StandardErrorGoesToJournal(), row.expected) << (row.value ? row.value : "unset");
    }
    unsetenv("JOURNAL_STREAM");
}

}  // namespace
