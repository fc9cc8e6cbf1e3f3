// SPDX-License-Identifier: MIT
// The order of a new read list: the groups still due in the pass first, returning stations
// next, the groups served in the pass last.
#include "read_list_order.h"

#include <gtest/gtest.h>

namespace {

RW_VAR Read(int station, const char *area, int address) {
    RW_VAR request;
    request.station = station;
    request.area = QLatin1String(area);
    request.address = address;
    return request;
}

// Stations 1, 2 and 3 with holding registers, station 1 with coils too, in that order.
const std::vector<ReadGroup> kPolled = {{1, 3}, {1, 0}, {2, 3}, {3, 3}};

TEST(GroupOf, TheStationAndItsTable) {
    EXPECT_EQ(GroupOf(4, "0x"), ReadGroup(4, 0));
    EXPECT_EQ(GroupOf(4, "1x"), ReadGroup(4, 1));
    EXPECT_EQ(GroupOf(4, "3x_double"), ReadGroup(4, 2));
    EXPECT_EQ(GroupOf(4, "4x_bit"), ReadGroup(4, 3));
}

TEST(OrderForNewList, AtTheStartOfAPassTheListKeepsItsOrder) {
    const QList<RW_VAR> list = {Read(1, "4x", 0), Read(1, "0x", 0), Read(2, "4x", 0),
                                Read(3, "4x", 0)};
    const ReadListOrder order = OrderForNewList(list, 4, kPolled, {2});
    EXPECT_EQ(order.groups, (std::vector<ReadGroup>{{1, 3}, {1, 0}, {3, 3}}));
    EXPECT_TRUE(order.served.empty());
}

TEST(OrderForNewList, InTheMiddleOfAPassTheDueGroupsComeFirst) {
    // Two reads of the pass done: the list has turned twice.
    const QList<RW_VAR> list = {Read(2, "4x", 0), Read(3, "4x", 0), Read(1, "4x", 0),
                                Read(1, "0x", 0)};
    const ReadListOrder order = OrderForNewList(list, 2, kPolled, {2});
    EXPECT_EQ(order.groups, (std::vector<ReadGroup>{{3, 3}, {1, 3}, {1, 0}}));
    EXPECT_EQ(order.served, (std::set<ReadGroup>{{1, 3}, {1, 0}}));
    EXPECT_EQ(ServedRequests(list, order.served), 2);
}

TEST(OrderForNewList, AGroupPartlyServedIsDueWhole) {
    // Station 1's registers take two requests; the first was read before the list changes.
    const QList<RW_VAR> list = {Read(1, "4x", 200), Read(2, "4x", 0), Read(3, "4x", 0),
                                Read(1, "4x", 0)};
    const ReadListOrder order = OrderForNewList(list, 3, {{1, 3}, {2, 3}, {3, 3}}, {3});
    EXPECT_EQ(order.groups, (std::vector<ReadGroup>{{1, 3}, {2, 3}}));
    EXPECT_TRUE(order.served.empty());
}

TEST(OrderForNewList, AStationBroughtBackIsReadInThisPass) {
    // Station 2 was set aside; it is back. One read of the pass is done.
    const QList<RW_VAR> list = {Read(1, "0x", 0), Read(3, "4x", 0), Read(1, "4x", 0)};
    const ReadListOrder order = OrderForNewList(list, 2, kPolled, {});
    EXPECT_EQ(order.groups, (std::vector<ReadGroup>{{1, 0}, {3, 3}, {2, 3}, {1, 3}}));
    EXPECT_EQ(order.served, (std::set<ReadGroup>{{1, 3}}));
    const QList<RW_VAR> rebuilt = {Read(1, "0x", 0), Read(3, "4x", 0), Read(2, "4x", 0),
                                   Read(1, "4x", 0)};
    EXPECT_EQ(ServedRequests(rebuilt, order.served), 1);
}

}  // namespace
