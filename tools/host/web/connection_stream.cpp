// SPDX-License-Identifier: MIT
// The admitted connection's reads (head from memory, then the socket until the deadline) and
// writes (with a time-out), on a non-blocking socket.
#include "connection_stream.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = ConnectionStream::Clock;

// True when socket is ready for events before deadline.
bool ReadyBefore(int socket, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd watched{socket, events, 0};
        const int ready = poll(&watched, 1, static_cast<int>(left.count()));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
    }
}

// The numeric address and port of either end of socket.
void Endpoint(int socket, bool peer, std::string &ip, int &port) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    const int got =
        peer ? getpeername(socket, generic, &length) : getsockname(socket, generic, &length);
    char host[NI_MAXHOST] = "";
    char service[NI_MAXSERV] = "0";
    if (got == 0) {
        getnameinfo(generic, length, host, sizeof host, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV);
    }
    ip = host;
    port = std::atoi(service);
}

}  // namespace

ConnectionStream::ConnectionStream(int socket, const std::string &received,
                                   Clock::time_point readDeadline,
                                   std::chrono::milliseconds writeTimeout)
    : socket_(socket),
      received_(received),
      readDeadline_(readDeadline),
      writeTimeout_(writeTimeout) {}

bool ConnectionStream::is_readable() const {
    return position_ < received_.size() || ReadyBefore(socket_, POLLIN, readDeadline_);
}

bool ConnectionStream::is_writable() const {
    return ReadyBefore(socket_, POLLOUT, Clock::now() + writeTimeout_);
}

ssize_t ConnectionStream::read(char *ptr, size_t size) {
    if (position_ < received_.size()) {
        const size_t taken = std::min(size, received_.size() - position_);
        std::memcpy(ptr, received_.data() + position_, taken);
        position_ += taken;
        return static_cast<ssize_t>(taken);
    }
    if (!is_readable()) return -1;
    return recv(socket_, ptr, size, 0);
}

ssize_t ConnectionStream::write(const char *ptr, size_t size) {
    size_t sent = 0;
    while (sent < size) {
        if (!is_writable()) return -1;
        const ssize_t now = send(socket_, ptr + sent, size - sent, MSG_NOSIGNAL);
        if (now < 0 && errno != EAGAIN && errno != EINTR) return -1;
        if (now > 0) sent += static_cast<size_t>(now);
    }
    return static_cast<ssize_t>(sent);
}

void ConnectionStream::get_remote_ip_and_port(std::string &ip, int &port) const {
    Endpoint(socket_, true, ip, port);
}

void ConnectionStream::get_local_ip_and_port(std::string &ip, int &port) const {
    Endpoint(socket_, false, ip, port);
}
