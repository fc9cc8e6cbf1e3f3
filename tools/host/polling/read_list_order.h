// SPDX-License-Identifier: MIT
// The order in which a new read list is handed to the driver when stations are set aside or
// brought back. The driver groups a station's cyclic reads by table and keeps the groups in the
// order their variables come; a new list starts its rotation at its head. Handed over in the
// order the variables were given, a list made in the middle of a pass would take their turn
// from the requests at its tail, for good when it is made more often than a pass takes. So the
// groups still due in the pass come first, in the order the driver would have served them, and
// those already served this pass last.
#ifndef MODBUS_ASCII_HOST_READ_LIST_ORDER_H
#define MODBUS_ASCII_HOST_READ_LIST_ORDER_H

#include <QList>
#include <QString>
#include <set>
#include <utility>
#include <vector>

#include "modbus_ascii_master.h"

// A station and one of its four tables (0 coils, 1 inputs, 2 input registers, 3 holding
// registers): the driver's groups of cyclic reads with several stations.
using ReadGroup = std::pair<int, int>;
ReadGroup GroupOf(int station, const QString &area);

struct ReadListOrder {
    std::vector<ReadGroup> groups;  // the groups to hand over, in this order
    std::set<ReadGroup> served;     // those already read in the current pass
};

// The order for a new list of the groups in polled (all polled groups, in the order of their
// variables) whose station is not left out, from the driver's list as it stands: its first
// dueInPass requests are still due in the current pass (the driver rotates the list by one for
// each finished read), the rest were served. A group due comes first even when some of its
// requests were served (a few are read twice; none is skipped); groups not in the list (a
// station brought back) come after those due, in their polled order; the served ones last.
ReadListOrder OrderForNewList(const QList<RW_VAR> &readList, int dueInPass,
                              const std::vector<ReadGroup> &polled, const std::set<int> &setAside);

// Requests of readList that belong to the served groups: how much of the pass is already done
// once the new list is in place.
int ServedRequests(const QList<RW_VAR> &readList, const std::set<ReadGroup> &served);

#endif  // MODBUS_ASCII_HOST_READ_LIST_ORDER_H
