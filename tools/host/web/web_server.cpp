// SPDX-License-Identifier: MIT
// The live page's routes and responses, and the requests the gate hands over to them.
#include "web_server.h"

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QJsonDocument>
#include <cerrno>
#include <chrono>
#include <thread>

#include "connection_gate.h"
#include "live_page_html.h"
#include "metrics_text.h"
#include "tool_error.h"

namespace {

using Clock = std::chrono::steady_clock;

// A small send buffer, so that a client that stops reading fills it soon and is dropped by the
// write time-out instead of holding its place for as long as the kernel would buffer.
constexpr int kSendBufferBytes = 32 * 1024;
// Nothing is posted to the page; a body is never read beyond this.
constexpr size_t kMaxRequestBody = 4096;
// A client gets at most one update in this time; what changed meanwhile comes together.
constexpr auto kMinimumUpdateInterval = std::chrono::milliseconds(200);
// Without news, a comment line this often, so that a closed connection is noticed.
constexpr auto kHeartbeatInterval = std::chrono::seconds(1);

constexpr auto kEndGrace = std::chrono::seconds(1);
constexpr auto kEndPoll = std::chrono::milliseconds(10);

const char kJson[] = "application/json";
const char kEventStream[] = "text/event-stream";
// The page runs its own inline script and style and talks to its own server only.
const char kPagePolicy[] =
    "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
    "img-src data:; connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

std::string Compact(const QJsonObject &object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::string Event(const char *name, const QJsonObject &data) {
    return std::string("event: ") + name + "\ndata: " + Compact(data) + "\n\n";
}

// The query's token as the server decoded it (percent-escapes once, '+' as a space, as in a
// form); the Authorization header's exactly as sent (WebServer::serve keeps it so).
std::string TokenOf(const httplib::Request &request) {
    if (request.has_param("token")) return request.get_param_value("token");
    const std::string authorization = request.get_header_value("Authorization");
    const std::string bearer = "Bearer ";
    return authorization.compare(0, bearer.size(), bearer) == 0
               ? authorization.substr(bearer.size())
               : std::string();
}

const char *ReasonOf(int status) {
    switch (status) {
        case 401:
            return "a token is needed: open the address the tool printed\n";
        case 403:
            return "this page answers to loopback names only (localhost, 127.0.0.1, [::1])\n";
        case 404:
            return "no such page\n";
        case 405:
            return "the live page only reads: GET only\n";
        case 408:
            return "the request did not arrive in time\n";
        case 414:
            return "the request line is too long\n";
        case 431:
            return "the request's headers are too large\n";
        case 503:
            return "too many clients at once; close another view and reload\n";
        default:
            return "refused\n";
    }
}

// The status lines of the refusals the gate sends before a request reaches the routes.
const char *StatusLineOf(int status) {
    switch (status) {
        case 408:
            return "HTTP/1.1 408 Request Timeout\r\n";
        case 414:
            return "HTTP/1.1 414 URI Too Long\r\n";
        case 431:
            return "HTTP/1.1 431 Request Header Fields Too Large\r\n";
        default:
            return "HTTP/1.1 503 Service Unavailable\r\n";
    }
}

httplib::Headers DefaultHeaders() {
    return {{"Cache-Control", "no-store"},
            {"X-Content-Type-Options", "nosniff"},
            {"Referrer-Policy", "no-referrer"}};
}

// A refusal the gate sends itself, with the headers every response carries.
std::string RefusalResponse(int status) {
    const std::string reason = ReasonOf(status);
    httplib::Headers headers = DefaultHeaders();
    if (status == 503) headers.emplace("Retry-After", "5");
    headers.emplace("Connection", "close");
    headers.emplace("Content-Type", "text/plain");
    headers.emplace("Content-Length", std::to_string(reason.size()));
    std::string response = StatusLineOf(status);
    for (const auto &[name, value] : headers) {
        response.append(name).append(": ").append(value).append("\r\n");
    }
    return response.append("\r\n").append(reason);
}

// One client of /api/events: the full state first, then the changes since what it was sent,
// a heartbeat while nothing happens, and an end event when the run is over.
class EventStream {
public:
    explicit EventStream(const SnapshotHub &hub) : hub_(hub) {}

    // The next piece to send; empty when the stream is over.
    std::string next() {
        if (ended_) return {};
        if (!sent_) return first();
        hub_.waitForClose(nextAllowed_);
        const SnapshotPointer latest =
            hub_.waitForNewer(sent_->sequence, Clock::now() + kHeartbeatInterval);
        if (latest->sequence > sent_->sequence) return update(latest);
        if (hub_.closed()) {
            ended_ = true;
            return Event("end", QJsonObject{{"cycle", sent_->pass}});
        }
        return ":\n\n";
    }

private:
    std::string first() {
        sent_ = hub_.latest();
        nextAllowed_ = Clock::now() + kMinimumUpdateInterval;
        return "retry: 2000\n" + Event("state", StateJson(*sent_));
    }

    std::string update(const SnapshotPointer &latest) {
        std::string events = Event("values", ChangesJson(*sent_, *latest)) +
                             Event("health", HealthUpdateJson(*latest));
        sent_ = latest;
        nextAllowed_ = Clock::now() + kMinimumUpdateInterval;
        return events;
    }

    const SnapshotHub &hub_;
    SnapshotPointer sent_;
    Clock::time_point nextAllowed_;
    bool ended_ = false;
};

}  // namespace

// cpp-httplib's server with the routes. It binds the listening socket but accepts nothing
// itself: it serves the requests the gate hands over, one per connection.
class WebServer::Routes : public httplib::Server {
public:
    int listeningSocket() const { return svr_sock_; }

    // Serves the request stream starts with; setup sees the request before it is routed.
    void serve(httplib::Stream &stream, const std::function<void(httplib::Request &)> &setup) {
        const bool closeAfterResponse = true;  // sent as "Connection: close"
        bool closedByClient = false;
        process_request(stream, closeAfterResponse, closedByClient, setup);
    }

    // From now on event streams end before their next piece. Returns the listening socket,
    // which the caller closes.
    int stopServing() { return svr_sock_.exchange(INVALID_SOCKET); }
};

WebServer::WebServer(const ServeSettings &settings, const SnapshotHub &hub)
    : settings_(settings), hub_(hub), routes_(std::make_unique<Routes>()) {
    route();
    errno = 0;
    if (!routes_->bind_to_port(settings_.address, settings_.port)) {
        const QString where = QStringLiteral("%1:%2")
                                  .arg(QString::fromStdString(settings_.address))
                                  .arg(settings_.port);
        if (errno == EADDRINUSE) {
            throw ToolError(QStringLiteral("--serve: port %1 is already in use (%2)")
                                .arg(settings_.port)
                                .arg(where));
        }
        throw ToolError(
            QStringLiteral("--serve: cannot listen on %1: %2").arg(where, qt_error_string(errno)));
    }
    gate_ = std::make_unique<ConnectionGate>(
        routes_->listeningSocket(),
        [this](ConnectionStream &stream, const HttpHead &head) { serve(stream, head); },
        RefusalResponse);
}

WebServer::~WebServer() {
    // Open event streams get a moment to send the end of the run (the hub is closed by now).
    const Clock::time_point deadline = Clock::now() + kEndGrace;
    while (gate_->servedClients() > 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(kEndPoll);
    }
    const int listening = routes_->stopServing();
    gate_.reset();
    close(listening);
}

void WebServer::route() {
    routes_->set_payload_max_length(kMaxRequestBody);
    routes_->set_socket_options([](socket_t socket) {
        httplib::default_socket_options(socket);
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    });
    routes_->set_default_headers(DefaultHeaders());
    routes_->set_pre_routing_handler(
        [this](const httplib::Request &request, httplib::Response &response) {
            return refused(request, response) ? httplib::Server::HandlerResponse::Handled
                                              : httplib::Server::HandlerResponse::Unhandled;
        });
    routes_->set_error_handler([](const httplib::Request &, httplib::Response &response) {
        response.set_content(ReasonOf(response.status), "text/plain");
    });
    routes_->Get("/", [this](const httplib::Request &, httplib::Response &response) {
        servePage(response);
    });
    routes_->Get("/api/state", [this](const httplib::Request &, httplib::Response &response) {
        serveState(response);
    });
    routes_->Get("/api/events", [this](const httplib::Request &, httplib::Response &response) {
        serveEvents(response);
    });
    routes_->Get("/metrics", [this](const httplib::Request &, httplib::Response &response) {
        response.set_content(MetricsText(*hub_.latest()), kMetricsContentType);
    });
}

void WebServer::serve(ConnectionStream &stream, const HttpHead &head) {
    // The server would percent-decode the header; a token there is compared exactly as sent.
    const std::string authorization = head.rawHeader("Authorization");
    routes_->serve(stream, [&authorization](httplib::Request &request) {
        request.headers.erase("Authorization");
        if (!authorization.empty()) request.headers.emplace("Authorization", authorization);
    });
}

bool WebServer::refused(const httplib::Request &request, httplib::Response &response) const {
    const int status = RefusalStatus(
        settings_, {request.method, request.get_header_value("Host"), TokenOf(request)});
    if (status == 0) return false;
    response.status = status;
    if (status == 405) response.set_header("Allow", "GET");
    if (status == 401) response.set_header("WWW-Authenticate", "Bearer");
    response.set_content(ReasonOf(status), "text/plain");
    return true;
}

void WebServer::servePage(httplib::Response &response) {
    response.set_header("Content-Security-Policy", kPagePolicy);
    response.set_content(kLivePageHtml, sizeof kLivePageHtml - 1, "text/html; charset=utf-8");
}

void WebServer::serveState(httplib::Response &response) {
    response.set_content(Compact(StateJson(*hub_.latest())), kJson);
}

void WebServer::serveEvents(httplib::Response &response) {
    auto stream = std::make_shared<EventStream>(hub_);
    response.set_chunked_content_provider(kEventStream, [stream](size_t, httplib::DataSink &sink) {
        const std::string piece = stream->next();
        if (piece.empty()) {
            sink.done();
            return true;
        }
        return sink.write(piece.data(), piece.size());
    });
}
