// SPDX-License-Identifier: MIT
#include "web_server.h"

#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>

#include <QJsonDocument>
#include <cerrno>
#include <cstring>

#include "live_page_html.h"
#include "tool_error.h"

namespace {

using Clock = std::chrono::steady_clock;

// Threads for the clients and a few more, so that a client beyond the limit is answered
// (503) rather than left waiting for a thread.
constexpr int kServerThreads = kMaxWebClients + 4;
// A client that takes longer than this to accept a write is dropped.
constexpr int kWriteTimeoutSeconds = 2;
constexpr int kReadTimeoutSeconds = 5;
constexpr int kKeepAliveSeconds = 2;
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
        case 503:
            return "too many clients at once; close another view and reload\n";
        default:
            return "refused\n";
    }
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

// The server's threads leave SIGINT and SIGTERM to the poll loop.
void BlockStopSignals() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

}  // namespace

// Holds one of the kMaxWebClients places while a request is served.
class WebServer::ClientSlot {
public:
    explicit ClientSlot(std::atomic<int> &clients) : clients_(clients) {}
    ~ClientSlot() { --clients_; }
    ClientSlot(const ClientSlot &) = delete;
    ClientSlot &operator=(const ClientSlot &) = delete;

private:
    std::atomic<int> &clients_;
};

WebServer::WebServer(const ServeSettings &settings, const SnapshotHub &hub)
    : settings_(settings), hub_(hub), server_(std::make_unique<httplib::Server>()) {
    route();
    errno = 0;
    if (!server_->bind_to_port(settings_.address, settings_.port)) {
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
    thread_ = std::thread([this] {
        BlockStopSignals();
        server_->listen_after_bind();
    });
}

WebServer::~WebServer() {
    // Open event streams get a moment to send the end of the run (the hub is closed by now).
    const Clock::time_point deadline = Clock::now() + kEndGrace;
    while (clients_ > 0 && Clock::now() < deadline) std::this_thread::sleep_for(kEndPoll);
    server_->stop();
    thread_.join();
}

void WebServer::route() {
    server_->new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
    server_->set_write_timeout(kWriteTimeoutSeconds);
    server_->set_read_timeout(kReadTimeoutSeconds);
    server_->set_keep_alive_timeout(kKeepAliveSeconds);
    server_->set_payload_max_length(kMaxRequestBody);
    server_->set_socket_options([](socket_t socket) {
        httplib::default_socket_options(socket);
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    });
    server_->set_default_headers({{"Cache-Control", "no-store"},
                                  {"X-Content-Type-Options", "nosniff"},
                                  {"Referrer-Policy", "no-referrer"}});
    server_->set_pre_routing_handler(
        [this](const httplib::Request &request, httplib::Response &response) {
            return refused(request, response) ? httplib::Server::HandlerResponse::Handled
                                              : httplib::Server::HandlerResponse::Unhandled;
        });
    server_->set_error_handler([](const httplib::Request &, httplib::Response &response) {
        response.set_content(ReasonOf(response.status), "text/plain");
    });
    server_->Get("/", [this](const httplib::Request &, httplib::Response &response) {
        servePage(response);
    });
    server_->Get("/api/state", [this](const httplib::Request &, httplib::Response &response) {
        serveState(response);
    });
    server_->Get("/api/events", [this](const httplib::Request &, httplib::Response &response) {
        serveEvents(response);
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

std::shared_ptr<WebServer::ClientSlot> WebServer::takeSlot(httplib::Response &response) {
    if (++clients_ > kMaxWebClients) {
        --clients_;
        response.status = 503;
        response.set_header("Retry-After", "5");
        response.set_content(ReasonOf(503), "text/plain");
        return nullptr;
    }
    return std::make_shared<ClientSlot>(clients_);
}

void WebServer::servePage(httplib::Response &response) {
    if (!takeSlot(response)) return;
    response.set_header("Content-Security-Policy", kPagePolicy);
    response.set_content(kLivePageHtml, sizeof kLivePageHtml - 1, "text/html; charset=utf-8");
}

void WebServer::serveState(httplib::Response &response) {
    if (!takeSlot(response)) return;
    response.set_content(Compact(StateJson(*hub_.latest())), kJson);
}

void WebServer::serveEvents(httplib::Response &response) {
    std::shared_ptr<ClientSlot> slot = takeSlot(response);
    if (!slot) return;
    auto stream = std::make_shared<EventStream>(hub_);
    // The slot is held as long as the provider lives, that is until the stream ends.
    response.set_chunked_content_provider(kEventStream,
                                          [stream, slot](size_t, httplib::DataSink &sink) {
                                              const std::string piece = stream->next();
                                              if (piece.empty()) {
                                                  sink.done();
                                                  return true;
                                              }
                                              return sink.write(piece.data(), piece.size());
                                          });
}
