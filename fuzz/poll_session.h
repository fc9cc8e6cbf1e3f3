// SPDX-License-Identifier: MIT
// A host that polls the driver with replies of every kind and, between sending a frame and
// handing over its reply, makes the calls a host's other threads make. It checks after every
// call what the driver promises whatever it is given.
#ifndef MODBUS_FUZZ_POLL_SESSION_H
#define MODBUS_FUZZ_POLL_SESSION_H

#include <QByteArray>

#include "fuzz_input.h"
#include "modbus_ascii_master.h"

namespace fuzz {

class PollSession {
public:
    // Registers the completion callback; info is the ComInfo handed to the driver.
    PollSession(InputReader &in, ComInfo &info);
    ~PollSession();
    PollSession(const PollSession &) = delete;
    PollSession &operator=(const PollSession &) = delete;

    // The host calls, each followed by the checks that concern it.
    void RebuildReadList();
    void QueueOnceRead();
    void QueueHostWrite();
    void QueueListWrite();
    void ReadHostValues();
    // One of the five above or an edit of the per-station records, chosen by the input.
    void AnyHostCall();

    // Poll turns with replies chosen by the input; host calls come between send and reply.
    void Poll(int turns);
    // Turns with no reply at all until every write and one-shot read is finished: each
    // frame is given up after its retries, so this ends within a known number of turns.
    void PollToCompletion();

private:
    // One ComCommunication/DataCom turn; false when no frame was handed out.
    bool Turn(bool silent);
    QByteArray ChooseReply(const QByteArray &frame, int replyLength);
    void CheckBitWriteHalf(const QByteArray &readReply) const;
    void CheckLimits() const;

    InputReader &in_;
    ComInfo &info_;
    const Protocol *checked_ = nullptr;
    QByteArray checkedFrame_;
};

}  // namespace fuzz

#endif  // MODBUS_FUZZ_POLL_SESSION_H
