// SPDX-License-Identifier: MIT
#include "snapshot_hub.h"

SnapshotHub::SnapshotHub() : latest_(std::make_shared<const LiveSnapshot>()) {}

void SnapshotHub::publish(LiveSnapshot snapshot) {
    snapshot.sequence = ++published_;
    SnapshotPointer next = std::make_shared<const LiveSnapshot>(std::move(snapshot));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        latest_.swap(next);
    }
    changed_.notify_all();
    // next, the previous snapshot, is freed here, outside the lock, unless a client holds it.
}

void SnapshotHub::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

SnapshotPointer SnapshotHub::latest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return latest_;
}

SnapshotPointer SnapshotHub::waitForNewer(quint64 sequence,
                                          std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return closed_ || latest_->sequence > sequence; });
    return latest_;
}

bool SnapshotHub::waitForClose(std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_until(lock, deadline, [&] { return closed_; });
}

bool SnapshotHub::closed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}
