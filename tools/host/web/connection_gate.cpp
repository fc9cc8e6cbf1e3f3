// SPDX-License-Identifier: MIT
// The gate's thread: accept, read heads within their limits and deadline, admit or refuse.
#include "connection_gate.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "web_access.h"

namespace {

// poll() watches the wake-up first, then the listening socket, then the pending heads in
// their order.
constexpr size_t kListening = 1;
constexpr size_t kFirstHead = 2;

// A client that takes longer than this to accept a write is dropped.
constexpr auto kWriteTimeout = std::chrono::milliseconds(2000);
// Out of file descriptors, accepting waits this long; those open close within the deadline.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
constexpr size_t kReadPieceBytes = 4096;
// At most this much of what a client sent and nobody read is read away before closing.
constexpr size_t kDrainBytes = 64 * 1024;

// The gate's and the workers' threads leave SIGINT and SIGTERM to the poll loop.
void BlockStopSignals() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

// Ends the connection after the response: what the client sent that was not read is read away
// first (a little of it), so that closing sends the response and an end of stream rather than
// a reset, which may make the client drop the response unread.
void CloseAfterResponse(int socket) {
    shutdown(socket, SHUT_WR);
    char scrap[4096];
    for (size_t drained = 0; drained < kDrainBytes;) {
        const ssize_t received = recv(socket, scrap, sizeof scrap, MSG_DONTWAIT);
        if (received <= 0) break;
        drained += static_cast<size_t>(received);
    }
    close(socket);
}

}  // namespace

ConnectionGate::ConnectionGate(int listeningSocket, Serve serve, Refusal refusal)
    : listening_(listeningSocket),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      serve_(std::move(serve)),
      refusal_(std::move(refusal)) {
    // Accepting goes on until nothing is left to accept, without ever blocking.
    fcntl(listening_, F_SETFL, fcntl(listening_, F_GETFL) | O_NONBLOCK);
    // cpp-httplib listens with a backlog of 5: a burst of connections beyond it would wait a
    // second for the client to try again, however soon they are accepted.
    listen(listening_, SOMAXCONN);
    thread_ = std::thread([this] { run(); });
}

ConnectionGate::~ConnectionGate() {
    stopping_ = true;
    const uint64_t one = 1;
    // An eventfd write fails only when its counter is full: the gate is awake then anyway.
    [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
    thread_.join();
    close(wake_);
}

void ConnectionGate::run() {
    BlockStopSignals();
    // Started here, so that they block the same signals.
    workers_ = std::make_unique<httplib::ThreadPool>(kMaxWebClients);
    while (!stopping_) {
        refuseOverdue();
        std::vector<pollfd> watched = watchList();
        if (poll(watched.data(), watched.size(), pollTimeoutMs()) < 0) continue;
        readHeads(watched);
        if (watched[kListening].revents != 0) acceptNew();
    }
    for (const Pending &pending : pending_) close(pending.socket);
    workers_->shutdown();
}

std::vector<pollfd> ConnectionGate::watchList() const {
    const bool accepting = Clock::now() >= acceptPausedUntil_;
    // poll() passes over a negative descriptor.
    std::vector<pollfd> watched{{wake_, POLLIN, 0}, {accepting ? listening_ : -1, POLLIN, 0}};
    for (const Pending &pending : pending_) watched.push_back({pending.socket, POLLIN, 0});
    return watched;
}

// Until the next deadline (the oldest head's: they all get the same time) or the end of a
// pause in accepting; -1 (no limit) when neither is due.
int ConnectionGate::pollTimeoutMs() const {
    auto wakeAt = Clock::time_point::max();
    if (!pending_.empty()) wakeAt = pending_.front().deadline;
    const Clock::time_point now = Clock::now();
    if (acceptPausedUntil_ > now) wakeAt = std::min(wakeAt, acceptPausedUntil_);
    if (wakeAt == Clock::time_point::max()) return -1;
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(
                                std::max(wakeAt - now, Clock::duration::zero()))
                                .count());
}

void ConnectionGate::refuseOverdue() {
    const Clock::time_point now = Clock::now();
    while (!pending_.empty() && pending_.front().deadline <= now) {
        refuse(pending_.front().socket, 408);
        pending_.pop_front();
    }
}

void ConnectionGate::readHeads(const std::vector<pollfd> &watched) {
    for (size_t i = 0; i < pending_.size(); ++i) {
        if (watched[kFirstHead + i].revents != 0) readHead(pending_[i]);
    }
    pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                  [](const Pending &pending) { return pending.done; }),
                   pending_.end());
}

void ConnectionGate::readHead(Pending &pending) {
    char piece[kReadPieceBytes];
    const ssize_t received = recv(pending.socket, piece, sizeof piece, 0);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) return;
    pending.done = true;
    if (received <= 0) {
        close(pending.socket);
        return;
    }
    switch (pending.head.add(piece, static_cast<size_t>(received))) {
        case HttpHead::State::Incomplete:
            pending.done = false;
            return;
        case HttpHead::State::Complete:
            admit(pending);
            return;
        case HttpHead::State::LineTooLong:
            refuse(pending.socket, 414);
            return;
        case HttpHead::State::HeadersTooLarge:
            refuse(pending.socket, 431);
            return;
    }
}

void ConnectionGate::acceptNew() {
    for (;;) {
        const int socket = accept4(listening_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno == ECONNABORTED || errno == EINTR) continue;
            if (errno == EMFILE || errno == ENFILE) {
                acceptPausedUntil_ = Clock::now() + kAcceptPause;
            }
            return;
        }
        // The limit acts here already, so that a client beyond it learns at once.
        if (served_ >= kMaxWebClients) {
            refuse(socket, 503);
            continue;
        }
        if (pending_.size() == kMaxPendingHeads) {
            refuse(pending_.front().socket, 408);
            pending_.pop_front();
        }
        pending_.push_back({socket, Clock::now() + kRequestDeadline, {}});
    }
}

// Only the gate's thread adds clients, so the count cannot pass the limit.
void ConnectionGate::admit(Pending &pending) {
    if (served_ >= kMaxWebClients) {
        refuse(pending.socket, 503);
        return;
    }
    ++served_;
    workers_->enqueue([this, socket = pending.socket, head = std::move(pending.head),
                       deadline = pending.deadline] { serveAndClose(socket, head, deadline); });
}

void ConnectionGate::serveAndClose(int socket, const HttpHead &head, Clock::time_point deadline) {
    {
        ConnectionStream stream(socket, head.bytes(), deadline, kWriteTimeout);
        serve_(stream, head);
    }
    CloseAfterResponse(socket);
    --served_;
}

// The refusal is a few hundred bytes: a fresh connection's send buffer takes it whole.
void ConnectionGate::refuse(int socket, int status) const {
    const std::string response = refusal_(status);
    send(socket, response.data(), response.size(), MSG_NOSIGNAL);
    CloseAfterResponse(socket);
}
