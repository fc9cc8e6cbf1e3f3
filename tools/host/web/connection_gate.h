// SPDX-License-Identifier: MIT
// Who gets into the live page's server and for how long: a thread of its own accepts every
// connection and reads the request heads of all of them with one poll(), each within its size
// limits (http_head.h) and one deadline for the whole head; only a complete head is handed
// to a worker, and no more than kMaxWebClients are served at once. A client that sends slowly,
// or too much, costs the tool a few kilobytes for a few seconds and never a thread. Each
// connection carries one request and is closed after its response, so that an idle connection
// never holds a place.
#ifndef MODBUS_ASCII_HOST_CONNECTION_GATE_H
#define MODBUS_ASCII_HOST_CONNECTION_GATE_H

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connection_stream.h"
#include "http_head.h"

struct pollfd;

// The whole request head must arrive within this time of the connection being accepted,
// however it is spread out; after it the connection is answered 408 and closed.
constexpr auto kRequestDeadline = std::chrono::seconds(5);
// Connections whose head is still coming; when one more arrives, the one that has been at it
// longest is answered 408 and closed. A browser's head arrives in one piece at once, so only a
// client that sends slowly while many others connect is ever pushed out.
constexpr size_t kMaxPendingHeads = 64;

class ConnectionGate {
public:
    // Serves one admitted request on a worker thread; the gate closes the connection after.
    using Serve = std::function<void(ConnectionStream &stream, const HttpHead &head)>;
    // The whole response (status line, headers, body) that refuses a connection with status.
    using Refusal = std::function<std::string(int status)>;

    // Starts accepting on listeningSocket (bound and listening; it stays the caller's).
    ConnectionGate(int listeningSocket, Serve serve, Refusal refusal);
    // Stops accepting, closes the connections whose head is still coming and waits for the
    // requests being served to end.
    ~ConnectionGate();
    ConnectionGate(const ConnectionGate &) = delete;
    ConnectionGate &operator=(const ConnectionGate &) = delete;

    int servedClients() const { return served_; }

private:
    using Clock = ConnectionStream::Clock;
    struct Pending {
        int socket;
        Clock::time_point deadline;
        HttpHead head;
        bool done = false;
    };

    void run();
    std::vector<pollfd> watchList() const;
    int pollTimeoutMs() const;
    void refuseOverdue();
    void readHeads(const std::vector<pollfd> &watched);
    void readHead(Pending &pending);
    void acceptNew();
    void admit(Pending &pending);
    void serveAndClose(int socket, const HttpHead &head, Clock::time_point deadline);
    void refuse(int socket, int status) const;

    const int listening_;
    const int wake_;
    Serve serve_;
    Refusal refusal_;
    std::deque<Pending> pending_;
    std::unique_ptr<httplib::ThreadPool> workers_;
    Clock::time_point acceptPausedUntil_;
    std::atomic<int> served_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

#endif  // MODBUS_ASCII_HOST_CONNECTION_GATE_H
