// SPDX-License-Identifier: MIT
// The head of one request to the live page (the request line and the header lines) as its
// bytes arrive, checked against the size limits with every byte, so that no client makes the
// tool hold more than about kMaxRequestLineBytes + kMaxHeaderBytes for its request.
#ifndef MODBUS_ASCII_HOST_HTTP_HEAD_H
#define MODBUS_ASCII_HOST_HTTP_HEAD_H

#include <cstddef>
#include <string>

// The request line with its line end; longer is refused with 414. A browser's address for
// this page is a few dozen bytes; 8 KiB is what common servers allow too.
constexpr size_t kMaxRequestLineBytes = 8 * 1024;
// One header line with its line end; longer is refused with 431.
constexpr size_t kMaxHeaderLineBytes = 8 * 1024;
// All header lines and the blank line that ends them; more is refused with 431. A browser
// sends under 1 KiB to this page (no cookies are ever set).
constexpr size_t kMaxHeaderBytes = 32 * 1024;
// Header lines; more are refused with 431.
constexpr int kMaxHeaderLines = 100;

class HttpHead {
public:
    enum class State { Incomplete, Complete, LineTooLong, HeadersTooLarge };

    // Takes the next bytes of the connection; returns the state after them. Once the head is
    // complete or refused, nothing more is taken.
    State add(const char *data, size_t size);
    State state() const { return state_; }
    // Everything taken: the head and whatever came with its last piece (the start of a body).
    const std::string &bytes() const { return bytes_; }
    // The value of the first header line called name (any case), exactly as sent but for the
    // blanks around it; empty when there is none.
    std::string rawHeader(const std::string &name) const;

private:
    State endLine(size_t lineBytes);
    State checkUnfinishedLine() const;

    std::string bytes_;
    State state_ = State::Incomplete;
    size_t scanned_ = 0;
    size_t lineStart_ = 0;
    size_t headersStart_ = 0;  // just after the request line
    size_t headEnd_ = 0;       // just after the blank line, once complete
    int headerLines_ = 0;
    size_t headerBytes_ = 0;
    bool requestLineSeen_ = false;
};

#endif  // MODBUS_ASCII_HOST_HTTP_HEAD_H
