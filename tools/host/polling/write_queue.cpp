// SPDX-License-Identifier: MIT
#include "write_queue.h"

#include "tool_error.h"

namespace {

// Driver requests of one write for area kinds that take one request per bit.
QList<RW_VAR> BitRequests(const WriteRequest &write) {
    QList<RW_VAR> requests;
    for (int i = 0; i < write.count; ++i) {
        RW_VAR request;
        request.address = write.address + i;
        request.count = 1;
        request.value = write.value.mid(i, 1);
        requests.append(request);
    }
    return requests;
}

// Driver requests of a register write, at most pieceRegisters registers each.
QList<RW_VAR> RegisterRequests(const WriteRequest &write, int pieceRegisters) {
    QList<RW_VAR> requests;
    for (int first = 0; first < write.count; first += pieceRegisters) {
        RW_VAR request;
        request.address = write.address + first;
        request.count = qMin(pieceRegisters, write.count - first);
        request.value = write.value.mid(2 * first, 2 * request.count);
        requests.append(request);
    }
    return requests;
}

QString DoubleWordTooLarge(const WriteRequest &write, int maxRegisters) {
    return QStringLiteral(
               "--write %1: a 32-bit value takes 2 registers of one frame, more than "
               "--max-frame-words %2 allows")
        .arg(write.text)
        .arg(maxRegisters);
}

QList<RW_VAR> RequestsOf(const WriteRequest &write, int maxRegisters) {
    switch (KindOfArea(write.area)) {
        case ValueKind::Bit:
            return BitRequests(write);
        case ValueKind::Register:
            return RegisterRequests(write, maxRegisters);
        case ValueKind::DoubleWord:
            // An even piece keeps both halves of every 32-bit value in one frame.
            return RegisterRequests(write, maxRegisters - maxRegisters % 2);
    }
    return {};
}

// Where an outcome stands when a write's requests ended differently: the worst one wins.
int Severity(WriteOutcome outcome) {
    switch (outcome) {
        case WriteOutcome::Done:
            return 0;
        case WriteOutcome::Sent:
            return 1;
        case WriteOutcome::Unconfirmed:
            return 2;
        case WriteOutcome::Pending:
            return 3;
        case WriteOutcome::Failed:
            return 4;
    }
    return 4;
}

}  // namespace

const char *WriteOutcomeName(WriteOutcome outcome) {
    switch (outcome) {
        case WriteOutcome::Pending:
            return "pending";
        case WriteOutcome::Done:
            return "done";
        case WriteOutcome::Sent:
            return "sent";
        case WriteOutcome::Failed:
            return "failed";
        case WriteOutcome::Unconfirmed:
            return "unconfirmed";
    }
    return "unknown";
}

bool IsWriteOutcomeGood(WriteOutcome outcome) {
    return outcome == WriteOutcome::Done || outcome == WriteOutcome::Sent;
}

void CheckWritesFit(const QList<WriteRequest> &writes, int maxRegisters) {
    for (const WriteRequest &write : writes) {
        if (KindOfArea(write.area) == ValueKind::DoubleWord && maxRegisters < 2) {
            throw ToolError(DoubleWordTooLarge(write, maxRegisters));
        }
    }
}

WriteQueue::WriteQueue(const QList<WriteRequest> &writes, int maxRegisters) : writes_(writes) {
    CheckWritesFit(writes, maxRegisters);
    for (int index = 0; index < writes_.size(); ++index) {
        const WriteRequest &write = writes_[index];
        for (RW_VAR request : RequestsOf(write, maxRegisters)) {
            request.ownerType = 0;
            request.ownerId = kFirstOwnerId + planned_.size();
            request.direction = 1;
            request.area = write.area;
            request.station = write.station;
            PlannedWrite planned;
            planned.writeIndex = index;
            planned.request = request;
            planned_.append(planned);
        }
    }
}

void WriteQueue::offer(const DriverApi &api) {
    while (offered_ < planned_.size() && offered_ - finished_ < kDriverCapacity) {
        const int queued = offered_ - finished_;
        if (api.addListWriteVar(&planned_[offered_].request) != queued + 1) {
            // Only this queue adds writes, so the driver's count must follow ours.
            throw ToolError(QStringLiteral("the driver's write queue did not take a write"));
        }
        ++offered_;
    }
}

PlannedWrite *WriteQueue::find(int ownerType, int ownerId) {
    const int index = ownerId - kFirstOwnerId;
    if (ownerType != 0 || index < 0 || index >= planned_.size()) return nullptr;
    return &planned_[index];
}

bool WriteQueue::ownsCompletion(const Completion &completion) const {
    const int index = completion.ownerId - kFirstOwnerId;
    return completion.ownerType == 0 && index >= 0 && index < planned_.size();
}

void WriteQueue::noteAttempt(const RW_VAR &frameVar, const Exchange &exchange) {
    PlannedWrite *planned = find(frameVar.ownerType, frameVar.ownerId);
    // Only the frame that writes counts: the read half of a bit write changes nothing.
    if (planned == nullptr || frameVar.direction != 1) return;
    planned->writeFrameSent = true;
    if (exchange.reply.isEmpty() || exchange.replyKind != FrameKind::Exception) {
        planned->writeMayHaveLanded = true;
    }
}

void WriteQueue::complete(const Completion &completion, int result) {
    PlannedWrite *planned = find(completion.ownerType, completion.ownerId);
    if (planned == nullptr || planned->outcome != WriteOutcome::Pending) return;
    ++finished_;
    if (completion.status == 1) {
        planned->outcome = planned->request.station == 0 ? WriteOutcome::Sent : WriteOutcome::Done;
        return;
    }
    planned->code = result;
    // Sent and never answered, or answered in a form the driver rejected: it may have
    // landed. Refused by an exception reply every time, or never sent (the read half of a bit
    // write failed): it did not.
    planned->outcome = planned->writeFrameSent && planned->writeMayHaveLanded
                           ? WriteOutcome::Unconfirmed
                           : WriteOutcome::Failed;
}

QList<WriteResult> WriteQueue::results() const {
    QList<WriteResult> results;
    for (const WriteRequest &write : writes_) results.append({write, WriteOutcome::Done, {}, {}});
    for (const PlannedWrite &planned : planned_) {
        WriteResult &result = results[planned.writeIndex];
        // A request that never finished may have been sent; it was not confirmed either way.
        WriteOutcome outcome = planned.outcome;
        if (outcome == WriteOutcome::Pending) {
            outcome = planned.writeFrameSent ? WriteOutcome::Unconfirmed : WriteOutcome::Failed;
        }
        ++result.requests[outcome];
        if (!IsWriteOutcomeGood(outcome)) {
            PlannedWrite shown = planned;
            shown.outcome = outcome;
            result.notDone.append(shown);
        }
        if (Severity(outcome) > Severity(result.outcome)) result.outcome = outcome;
    }
    return results;
}
