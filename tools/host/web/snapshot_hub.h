// SPDX-License-Identifier: MIT
// Where the poll loop leaves the latest snapshot of the run for the live page's clients. The
// loop only swaps a pointer under a short lock and never waits for a client; each client
// takes the latest snapshot when it is ready for one, so a slow one skips states, and memory
// holds at most the snapshots that clients are still sending.
#ifndef MODBUS_ASCII_HOST_SNAPSHOT_HUB_H
#define MODBUS_ASCII_HOST_SNAPSHOT_HUB_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "web_state.h"

using SnapshotPointer = std::shared_ptr<const LiveSnapshot>;

class SnapshotHub {
public:
    SnapshotHub();

    // The poll loop's side: the new state (its sequence number is set here), and the end.
    void publish(LiveSnapshot snapshot);
    void close();

    SnapshotPointer latest() const;
    // Waits until a snapshot newer than sequence is published, the hub is closed or the
    // deadline passes; returns the latest snapshot.
    SnapshotPointer waitForNewer(quint64 sequence,
                                 std::chrono::steady_clock::time_point deadline) const;
    // Waits until the hub is closed or the deadline passes; true when closed.
    bool waitForClose(std::chrono::steady_clock::time_point deadline) const;
    bool closed() const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    SnapshotPointer latest_;
    bool closed_ = false;
    quint64 published_ = 0;  // only the poll loop publishes
};

#endif  // MODBUS_ASCII_HOST_SNAPSHOT_HUB_H
