// SPDX-License-Identifier: MIT
// One admitted connection of the live page as cpp-httplib reads and writes it: the request
// head (already read and checked by the gate) from memory, anything further from the socket
// but only until the request's deadline, and writes that give up when the client takes longer
// than the write time-out to accept one.
#ifndef MODBUS_ASCII_HOST_CONNECTION_STREAM_H
#define MODBUS_ASCII_HOST_CONNECTION_STREAM_H

#include <httplib.h>

#include <chrono>
#include <string>

class ConnectionStream : public httplib::Stream {
public:
    using Clock = std::chrono::steady_clock;

    // received: what the gate read (the head and what came with it), kept by the caller while
    // the stream lives; socket stays open, its owner closes it once the stream is done with.
    ConnectionStream(int socket, const std::string &received, Clock::time_point readDeadline,
                     std::chrono::milliseconds writeTimeout);

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char *ptr, size_t size) override;
    // Writes everything or fails (-1), as a blocking socket with a send time-out would.
    ssize_t write(const char *ptr, size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    socket_t socket() const override { return socket_; }

private:
    int socket_;
    const std::string &received_;
    size_t position_ = 0;
    Clock::time_point readDeadline_;
    std::chrono::milliseconds writeTimeout_;
};

#endif  // MODBUS_ASCII_HOST_CONNECTION_STREAM_H
