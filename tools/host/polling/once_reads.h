// SPDX-License-Identifier: MIT
// The host's one-shot reads (--once): how many entries each takes in the driver's one-shot
// queue, which holds 1024 and drops the rest without a word, and handing them over.
#ifndef MODBUS_ASCII_HOST_ONCE_READS_H
#define MODBUS_ASCII_HOST_ONCE_READS_H

#include <QList>
#include <set>

#include "driver_api.h"
#include "poll_loop.h"
#include "variables.h"

// The driver's one-shot queue drops entries beyond this many.
constexpr int kOnceQueueCapacity = 1024;

// The entries AddListOnceReadVar makes of a read: coils and inputs in whole bytes (one byte
// more when the span ends on a byte boundary), register bits in whole registers (likewise),
// cut into pieces of at most maxFrameWords bytes or registers.
int OnceReadEntries(const Variable &variable, int maxFrameWords);

// Refuses (ToolError) one-shot reads that would need more entries than the driver's queue
// holds: the driver would drop some, and their completions would never come.
void CheckOnceReadsFit(const QList<Variable> &onceReads, int maxFrameWords);

// Queues each one-shot read under its own owner (0, n), so that each is reported by a
// completion, and returns the owners. Throws ToolError when the driver's queue did not grow
// by the entries each read takes.
std::set<Owner> QueueOnceReads(const DriverApi &api, const QList<Variable> &onceReads,
                               int maxFrameWords);

#endif  // MODBUS_ASCII_HOST_ONCE_READS_H
