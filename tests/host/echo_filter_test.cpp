// SPDX-License-Identifier: MIT
// Local echo: which frames of an exchange are the adapter's echo, and what auto finds out.
#include "echo_filter.h"

#include <gtest/gtest.h>

#include <ostream>
#include <vector>

namespace {

// LRCs worked out by hand (two's complement of the byte sum).
const char kRead[] = ":010300000001FB\r\n";         // one holding register at 0
const char kReadAnswer[] = ":010302002AD0\r\n";     // 42
const char kOtherRead[] = ":010300000002FA\r\n";    // two registers: a broken echo of kRead
const char kWrite[] = ":0106000A1234A9\r\n";        // register 10 = 0x1234; acknowledged by
                                                    // the same characters
const char kWriteException[] = ":01860277\r\n";     // illegal data address
const char kGarbledRead[] = ":010300000001FC\r\n";  // kRead with its LRC spoilt

// One exchange: the request sent, the frames that came, and what the filter makes of each
// (nothing: judged as a reply by the line layer).
struct Step {
    const char *request;
    std::vector<const char *> frames;
    std::vector<std::optional<FrameKind>> expected;
    bool spoiled;
};

struct EchoCase {
    const char *name;
    EchoMode mode;
    std::vector<Step> steps;
    EchoFinding finding;
};

const std::optional<FrameKind> kJudged;

const EchoCase kEchoCases[] = {
    {"on_read_echo_then_answer",
     EchoMode::On,
     {{kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false}},
     EchoFinding::Present},
    {"on_differing_echo_spoils_the_attempt",
     EchoMode::On,
     {{kRead, {kOtherRead}, {FrameKind::BadEcho}, true}},
     EchoFinding::Present},
    {"on_write_echo_then_acknowledgement",
     EchoMode::On,
     {{kWrite, {kWrite, kWrite}, {FrameKind::Echo, kJudged}, false}},
     EchoFinding::Present},
    {"on_write_echo_alone_is_no_acknowledgement",
     EchoMode::On,
     {{kWrite, {kWrite}, {FrameKind::Echo}, false}},
     EchoFinding::Present},
    {"on_answer_where_the_echo_was_due",
     EchoMode::On,
     {{kRead, {kReadAnswer}, {FrameKind::BadEcho}, true}},
     EchoFinding::Present},
    {"auto_read_echo_tells_the_adapter_echoes",
     EchoMode::Auto,
     {{kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false},
      {kWrite, {kWrite, kWrite}, {FrameKind::Echo, kJudged}, false}},
     EchoFinding::Present},
    {"auto_answer_first_tells_there_is_no_echo",
     EchoMode::Auto,
     {{kRead, {kReadAnswer}, {kJudged}, false}, {kWrite, {kWrite}, {kJudged}, false}},
     EchoFinding::Absent},
    {"auto_unsure_single_write_copy_is_set_aside",
     EchoMode::Auto,
     {{kWrite, {kWrite}, {FrameKind::PossibleEcho}, false}},
     EchoFinding::Unknown},
    {"auto_unsure_second_copy_is_the_acknowledgement",
     EchoMode::Auto,
     {{kWrite, {kWrite, kWrite}, {FrameKind::PossibleEcho, kJudged}, false}},
     EchoFinding::Present},
    {"auto_unsure_copy_then_exception",
     EchoMode::Auto,
     {{kWrite, {kWrite, kWriteException}, {FrameKind::PossibleEcho, kJudged}, false}},
     EchoFinding::Present},
    {"auto_unsure_exception_first_tells_there_is_no_echo",
     EchoMode::Auto,
     {{kWrite, {kWriteException}, {kJudged}, false}},
     EchoFinding::Absent},
    {"auto_noise_tells_nothing",
     EchoMode::Auto,
     {{kRead, {kOtherRead}, {kJudged}, false}},
     EchoFinding::Unknown},
    {"auto_spoilt_frame_before_the_answer_tells_nothing",
     EchoMode::Auto,
     {{kRead, {kGarbledRead, kReadAnswer}, {kJudged, kJudged}, false}},
     EchoFinding::Unknown},
    {"auto_spoilt_first_echo_then_clean_echoes_find_the_echo",
     EchoMode::Auto,
     {{kRead, {kGarbledRead, kReadAnswer}, {kJudged, kJudged}, false},
      {kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false},
      {kWrite, {kWrite}, {FrameKind::Echo}, false}},
     EchoFinding::Present},
    {"auto_read_echo_after_absent_reopens_the_finding",
     EchoMode::Auto,
     {{kRead, {kReadAnswer}, {kJudged}, false},
      {kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false},
      {kWrite, {kWrite}, {FrameKind::Echo}, false}},
     EchoFinding::Present},
    {"auto_answer_where_the_echo_was_due_reopens_the_finding",
     EchoMode::Auto,
     {{kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false},
      {kRead, {kReadAnswer}, {kJudged}, false},
      {kWrite, {kWrite}, {FrameKind::PossibleEcho}, false}},
     EchoFinding::Unknown},
    {"auto_differing_echo_still_spoils_the_attempt",
     EchoMode::Auto,
     {{kRead, {kRead, kReadAnswer}, {FrameKind::Echo, kJudged}, false},
      {kRead, {kGarbledRead}, {FrameKind::BadEcho}, true}},
     EchoFinding::Present},
    {"off_copy_goes_to_the_line_layer",
     EchoMode::Off,
     {{kRead, {kRead}, {kJudged}, false}, {kWrite, {kWrite}, {kJudged}, false}},
     EchoFinding::Unknown},
};

void PrintTo(const EchoCase &row, std::ostream *stream) {
    *stream << row.name;
}

class EchoFilterTest : public ::testing::TestWithParam<EchoCase> {};

TEST_P(EchoFilterTest, ScreensEachFrame) {
    const EchoCase &row = GetParam();
    EchoFilter filter(row.mode);
    for (const Step &step : row.steps) {
        filter.startExchange(step.request);
        std::vector<std::optional<FrameKind>> screened;
        for (const char *frame : step.frames) screened.push_back(filter.screen(frame));
        EXPECT_EQ(screened, step.expected) << step.request;
        EXPECT_EQ(filter.attemptSpoiled(), step.spoiled) << step.request;
    }
    EXPECT_EQ(filter.finding(), row.finding);
}

INSTANTIATE_TEST_SUITE_P(Cases, EchoFilterTest, ::testing::ValuesIn(kEchoCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(EchoFilter, EachExchangeStartsUnspoiled) {
    EchoFilter filter(EchoMode::On);
    filter.startExchange(kRead);
    EXPECT_EQ(filter.screen(kOtherRead), FrameKind::BadEcho);
    filter.startExchange(kRead);
    EXPECT_FALSE(filter.attemptSpoiled());
    EXPECT_EQ(filter.screen(kRead), FrameKind::Echo);
}

TEST(EchoFilter, NamesForTheSummary) {
    EXPECT_STREQ(EchoModeName(EchoMode::Auto), "auto");
    EXPECT_STREQ(EchoModeName(EchoMode::Off), "off");
    EXPECT_STREQ(EchoFindingName(EchoFinding::Present), "present");
    EXPECT_STREQ(EchoFindingName(EchoFinding::Absent), "absent");
    EXPECT_STREQ(FrameKindName(FrameKind::BadEcho), "differing echo");
    EXPECT_STREQ(FrameKindName(FrameKind::PossibleEcho), "possible echo");
}

TEST(EchoFilter, ProbesBeforeASingleWriteOnlyWhileUnsure) {
    const char broadcast[] = ":0006000A1234AA\r\n";
    EchoFilter unsure(EchoMode::Auto);
    EXPECT_TRUE(unsure.wantsProbe(kWrite));
    EXPECT_TRUE(unsure.wantsProbe(":0105000CFF00EF\r\n"));
    EXPECT_FALSE(unsure.wantsProbe(kRead));
    EXPECT_FALSE(unsure.wantsProbe(broadcast));  // nobody would answer the probe
    EXPECT_FALSE(EchoFilter(EchoMode::On).wantsProbe(kWrite));
    EXPECT_FALSE(EchoFilter(EchoMode::Off).wantsProbe(kWrite));
    unsure.startExchange(kRead);
    unsure.screen(kReadAnswer);
    EXPECT_FALSE(unsure.wantsProbe(kWrite));
}

TEST(EchoProbeFor, ReadsTheCoilOrRegisterTheWriteChanges) {
    EXPECT_EQ(EchoProbeFor(kWrite), ":0103000A0001F1\r\n");
    EXPECT_EQ(EchoProbeFor(":0105000CFF00EF\r\n"), ":0101000C0001F1\r\n");
    EXPECT_EQ(EchoProbeFor(kRead), "");
}

}  // namespace
