// SPDX-License-Identifier: MIT
// Dead stations: when a silent station is set aside, probed and brought back.
#include "station_demotion.h"

#include <gtest/gtest.h>

namespace {

const DemotionSettings kSettings{3, 10000};

TEST(StationDemotion, ThreeSilentAttemptsInARowSetAStationAside) {
    StationDemotion demotion(kSettings);
    EXPECT_FALSE(demotion.note(4, false, 100));
    EXPECT_FALSE(demotion.note(4, false, 200));
    EXPECT_TRUE(demotion.note(4, false, 300));
    EXPECT_EQ(demotion.setAside(), std::set<int>({4}));
    EXPECT_EQ(demotion.standings()[4].asideUntilMs, 10300);
    EXPECT_EQ(StandingText(demotion.standings()[4]), "set aside until 10.3 s");
}

TEST(StationDemotion, AnAnswerStartsTheCountAgain) {
    StationDemotion demotion(kSettings);
    demotion.note(4, false, 100);
    demotion.note(4, false, 200);
    EXPECT_FALSE(demotion.note(4, true, 300));
    EXPECT_FALSE(demotion.note(4, false, 400));
    EXPECT_FALSE(demotion.note(4, false, 500));
    EXPECT_TRUE(demotion.setAside().empty());
    EXPECT_EQ(StandingText(demotion.standings()[4]), "answering");
}

TEST(StationDemotion, AProbeGetsOneAttempt) {
    StationDemotion demotion(kSettings);
    for (int ms : {1, 2, 3}) demotion.note(4, false, ms);
    EXPECT_FALSE(demotion.startProbes(10002));
    EXPECT_TRUE(demotion.startProbes(10003));
    EXPECT_TRUE(demotion.setAside().empty());
    EXPECT_EQ(StandingText(demotion.standings()[4]), "probing");
    EXPECT_TRUE(demotion.note(4, false, 10500));
    EXPECT_EQ(demotion.standings()[4].asideUntilMs, 20500);
    EXPECT_EQ(demotion.standings()[4].demotions, 2);
}

TEST(StationDemotion, AnAnswerBringsAStationBackAtOnce) {
    StationDemotion demotion(kSettings);
    for (int ms : {1, 2, 3}) demotion.note(4, false, ms);
    EXPECT_TRUE(demotion.note(4, true, 50));  // a write to it was answered
    EXPECT_TRUE(demotion.setAside().empty());
    EXPECT_EQ(demotion.standings()[4].demotions, 1);
}

}  // namespace
