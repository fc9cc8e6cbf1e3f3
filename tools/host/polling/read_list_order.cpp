// SPDX-License-Identifier: MIT
// Keeping the driver's rotation when its read list is made anew.
#include "read_list_order.h"

#include <algorithm>

namespace {

bool Contains(const std::vector<ReadGroup> &groups, const ReadGroup &group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

void AppendOnce(std::vector<ReadGroup> &groups, const ReadGroup &group) {
    if (!Contains(groups, group)) groups.push_back(group);
}

}  // namespace

ReadGroup GroupOf(int station, const QString &area) {
    if (area == QLatin1String("0x")) return {station, 0};
    if (area == QLatin1String("1x")) return {station, 1};
    return {station, area.startsWith(QLatin1String("3x")) ? 2 : 3};
}

ReadListOrder OrderForNewList(const QList<RW_VAR> &readList, int dueInPass,
                              const std::vector<ReadGroup> &polled, const std::set<int> &setAside) {
    const auto kept = [&](const ReadGroup &group) {
        return setAside.count(group.first) == 0 && Contains(polled, group);
    };
    std::vector<ReadGroup> due;
    std::vector<ReadGroup> served;
    for (int i = 0; i < readList.size(); ++i) {
        const ReadGroup group = GroupOf(readList[i].station, readList[i].area);
        if (!kept(group) || Contains(due, group)) continue;
        AppendOnce(i < dueInPass ? due : served, group);
    }
    ReadListOrder order;
    order.groups = due;
    for (const ReadGroup &group : polled) {
        if (kept(group) && !Contains(due, group) && !Contains(served, group)) {
            AppendOnce(order.groups, group);
        }
    }
    order.groups.insert(order.groups.end(), served.begin(), served.end());
    order.served.insert(served.begin(), served.end());
    return order;
}

int ServedRequests(const QList<RW_VAR> &readList, const std::set<ReadGroup> &served) {
    return static_cast<int>(std::count_if(readList.begin(), readList.end(), [&](const RW_VAR &r) {
        return served.count(GroupOf(r.station, r.area)) != 0;
    }));
}
