// SPDX-License-Identifier: MIT
// The HTTP side of --serve (Debian's cpp-httplib): GET / (the page, compiled in), GET
// /api/state (JSON) and GET /api/events (Server-Sent Events); nothing else is served, nothing
// is read from disk. Connections come in through the gate (connection_gate.h), which bounds
// what a client may send and for how long, and are served on its worker threads.
#ifndef MODBUS_ASCII_HOST_WEB_SERVER_H
#define MODBUS_ASCII_HOST_WEB_SERVER_H

#include <memory>

#include "snapshot_hub.h"
#include "web_access.h"

namespace httplib {
class Request;
class Response;
}  // namespace httplib

class ConnectionGate;
class ConnectionStream;
class HttpHead;

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
    class Routes;

    void route();
    void serve(ConnectionStream &stream, const HttpHead &head);
    bool refused(const httplib::Request &request, httplib::Response &response) const;
    void servePage(httplib::Response &response);
    void serveState(httplib::Response &response);
    void serveEvents(httplib::Response &response);

    ServeSettings settings_;
    const SnapshotHub &hub_;
    std::unique_ptr<Routes> routes_;
    std::unique_ptr<ConnectionGate> gate_;
};

#endif  // MODBUS_ASCII_HOST_WEB_SERVER_H
