// SPDX-License-Identifier: MIT
// The host's writes on their way to the slave: cut into driver requests within Modbus limits,
// offered to the driver's write queue while it has room, and followed to an outcome each.
#ifndef MODBUS_ASCII_HOST_WRITE_QUEUE_H
#define MODBUS_ASCII_HOST_WRITE_QUEUE_H

#include <QList>
#include <QMap>
#include <QString>

#include "driver_api.h"
#include "line_layer.h"
#include "run_stats.h"
#include "variables.h"

// How a write request ended.
enum class WriteOutcome {
    Pending,      // not finished (yet)
    Done,         // acknowledged by the slave
    Sent,         // broadcast: sent, and no slave acknowledges a broadcast
    Failed,       // given up: it never reached the slave, or the slave refused it
    Unconfirmed,  // sent, and no acknowledgement was accepted: the slave may hold the value
};

const char *WriteOutcomeName(WriteOutcome outcome);

// One driver request of a --write, with what happened to it.
struct PlannedWrite {
    int writeIndex = 0;  // the --write it belongs to
    RW_VAR request;
    WriteOutcome outcome = WriteOutcome::Pending;
    int code = 0;  // DataCom's code when it was given up
    bool writeFrameSent = false;
    // An attempt got no exception reply (no reply at all, or an answer the driver rejected):
    // the slave may have carried it out.
    bool writeMayHaveLanded = false;
};

// The outcome of one --write over its requests.
struct WriteResult {
    WriteRequest write;
    WriteOutcome outcome = WriteOutcome::Done;
    QMap<WriteOutcome, int> requests;  // requests by outcome
    QList<PlannedWrite> notDone;       // failed, unconfirmed or still pending requests
};

// Throws ToolError for a write that cannot be cut into requests of at most maxRegisters: a
// 32-bit value needs both its registers in one frame.
void CheckWritesFit(const QList<WriteRequest> &writes, int maxRegisters);

class WriteQueue {
public:
    // The driver's write queue drops requests beyond this many.
    static constexpr int kDriverCapacity = 1024;
    // Owners of the host's write requests: (0, kFirstOwnerId + n), apart from the cyclic reads
    // (0, -1) and the one-shot reads (0, 1 ...).
    static constexpr int kFirstOwnerId = 1000000;

    // Cuts each write into requests: one per bit for coils and register bits, register
    // writes in pieces of at most maxRegisters (even for 32-bit values, which are never cut).
    WriteQueue(const QList<WriteRequest> &writes, int maxRegisters);

    // Offers requests to the driver while its write queue has room.
    void offer(const DriverApi &api);
    // Notes an attempt of a frame of a write request and the driver's result for it.
    void noteAttempt(const RW_VAR &frameVar, const Exchange &exchange);
    // Finishes the request of a completion; result is what DataCom returned with it.
    void complete(const Completion &completion, int result);
    bool finished() const { return finished_ == planned_.size(); }
    bool ownsCompletion(const Completion &completion) const;

    QList<WriteResult> results() const;

private:
    PlannedWrite *find(int ownerType, int ownerId);

    QList<WriteRequest> writes_;
    QList<PlannedWrite> planned_;
    int offered_ = 0;
    int finished_ = 0;
};

// The outcome that decides a run's exit status: anything but done or sent means the slave
// may not hold what was asked.
bool IsWriteOutcomeGood(WriteOutcome outcome);

#endif  // MODBUS_ASCII_HOST_WRITE_QUEUE_H
