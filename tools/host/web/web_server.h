// SPDX-License-Identifier: MIT
// The HTTP side of --serve (Debian's cpp-httplib): GET / (the page, compiled in), GET
// /api/state (JSON) and GET /api/events (Server-Sent Events), on threads of its own; nothing
// else is served, nothing is read from disk.
#ifndef MODBUS_ASCII_HOST_WEB_SERVER_H
#define MODBUS_ASCII_HOST_WEB_SERVER_H

#include <atomic>
#include <memory>
#include <thread>

#include "snapshot_hub.h"
#include "web_access.h"

namespace httplib {
class Server;
class Request;
class Response;
}  // namespace httplib

class WebServer {
public:
    // Listens at once; throws ToolError naming --serve when the address cannot be bound.
    WebServer(const ServeSettings &settings, const SnapshotHub &hub);
    // Gives open event streams up to a second to end, then stops listening and waits for the
    // open connections to end (a stalled client at most for the write time-out).
    ~WebServer();
    WebServer(const WebServer &) = delete;
    WebServer &operator=(const WebServer &) = delete;

private:
    class ClientSlot;

    void route();
    bool refused(const httplib::Request &request, httplib::Response &response) const;
    std::shared_ptr<ClientSlot> takeSlot(httplib::Response &response);
    void servePage(httplib::Response &response);
    void serveState(httplib::Response &response);
    void serveEvents(httplib::Response &response);

    ServeSettings settings_;
    const SnapshotHub &hub_;
    std::unique_ptr<httplib::Server> server_;
    std::atomic<int> clients_{0};
    std::thread thread_;
};

#endif  // MODBUS_ASCII_HOST_WEB_SERVER_H
