// SPDX-License-Identifier: MIT
// The notify protocol of systemd (sd_notify(3)), spoken over a datagram socket of our own.
#include "service_notifier.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// An environment variable as a whole number; 0 when it is missing or not one.
qint64 EnvironmentNumber(const char *name) {
    const char *text = std::getenv(name);
    if (text == nullptr || *text == '\0') return 0;
    char *end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    return *end == '\0' && value > 0 ? value : 0;
}

// The watchdog's time in microseconds, when it watches this process.
qint64 WatchdogMicroseconds() {
    const qint64 pid = EnvironmentNumber("WATCHDOG_PID");
    if (pid != 0 && pid != static_cast<qint64>(getpid())) return 0;
    return EnvironmentNumber("WATCHDOG_USEC");
}

}  // namespace

ServiceNotifier::ServiceNotifier() {
    const char *path = std::getenv("NOTIFY_SOCKET");
    const size_t length = path == nullptr ? 0 : std::strlen(path);
    // An absolute path, or "@name" for an address in the abstract namespace.
    if (length < 2 || length >= sizeof(address_.sun_path) || (path[0] != '/' && path[0] != '@')) {
        return;
    }
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, path, length);
    if (path[0] == '@') address_.sun_path[0] = '\0';
    addressLength_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    pingIntervalMs_ = WatchdogMicroseconds() / 2000;
    sincePing_.start();
}

ServiceNotifier::~ServiceNotifier() {
    if (socket_ >= 0) ::close(socket_);
}

void ServiceNotifier::ready(const QString &status) {
    send("READY=1\nSTATUS=" + status.toUtf8());
}

void ServiceNotifier::status(const QString &status) {
    send("STATUS=" + status.toUtf8());
}

void ServiceNotifier::progress(const QString &status) {
    constexpr qint64 kProgressEveryMs = 1000;
    if (sinceProgress_.isValid() && sinceProgress_.elapsed() < kProgressEveryMs) return;
    sinceProgress_.start();
    send("STATUS=" + status.toUtf8());
}

void ServiceNotifier::stopping() {
    send("STOPPING=1");
}

void ServiceNotifier::turn() {
    if (pingIntervalMs_ == 0 || sincePing_.elapsed() < pingIntervalMs_) return;
    sincePing_.restart();
    send("WATCHDOG=1");
}

// A message lost (systemd gone, the socket full) is not the run's concern: nothing waits on it.
void ServiceNotifier::send(const QByteArray &message) {
    if (socket_ < 0) return;
    const ssize_t sent =
        ::sendto(socket_, message.constData(), static_cast<size_t>(message.size()), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr *>(&address_), addressLength_);
    static_cast<void>(sent);
}

QString RunStatusText(const RunStats &stats) {
    const qint64 transactions = stats.transactions;
    const QString answered = transactions == 0
                                 ? QStringLiteral("nothing sent yet")
                                 : QStringLiteral("%1 % answered")
                                       .arg(100.0 * static_cast<double>(stats.accepted) /
                                                static_cast<double>(transactions),
                                            0, 'f', 1);
    int setAside = 0;
    for (const StationHealth &station : stats.health.stations()) {
        if (station.standing.startsWith(QLatin1String("set aside"))) ++setAside;
    }
    return QStringLiteral("pass %1, %2, %3 station%4 set aside")
        .arg(stats.passes)
        .arg(answered)
        .arg(setAside)
        .arg(setAside == 1 ? QString() : QStringLiteral("s"));
}
