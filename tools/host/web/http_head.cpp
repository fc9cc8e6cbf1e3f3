// SPDX-License-Identifier: MIT
// Scanning a request head line by line as it arrives, with its size limits.
#include "http_head.h"

#include <algorithm>
#include <cctype>

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

bool SameNameIgnoringCase(const std::string &line, size_t colon, const std::string &name) {
    return colon == name.size() &&
           std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

// The text between first and last without the blanks at either end.
std::string Trimmed(const std::string &text, size_t first, size_t last) {
    while (first < last && IsBlank(text[first])) ++first;
    while (last > first && IsBlank(text[last - 1])) --last;
    return text.substr(first, last - first);
}

}  // namespace

HttpHead::State HttpHead::add(const char *data, size_t size) {
    if (state_ != State::Incomplete) return state_;
    bytes_.append(data, size);
    while (state_ == State::Incomplete) {
        const size_t lineEnd = bytes_.find('\n', scanned_);
        if (lineEnd == std::string::npos) {
            scanned_ = bytes_.size();
            state_ = checkUnfinishedLine();
            break;
        }
        scanned_ = lineEnd + 1;
        state_ = endLine(scanned_ - lineStart_);
        lineStart_ = scanned_;
    }
    return state_;
}

HttpHead::State HttpHead::endLine(size_t lineBytes) {
    if (!requestLineSeen_) {
        requestLineSeen_ = true;
        headersStart_ = scanned_;
        return lineBytes > kMaxRequestLineBytes ? State::LineTooLong : State::Incomplete;
    }
    headerBytes_ += lineBytes;
    if (headerBytes_ > kMaxHeaderBytes) return State::HeadersTooLarge;
    // The blank line ends the head (a bare "\n" is not one: the server skips such lines).
    if (lineBytes == 2 && bytes_[lineStart_] == '\r') {
        headEnd_ = scanned_;
        return State::Complete;
    }
    if (lineBytes > kMaxHeaderLineBytes || ++headerLines_ > kMaxHeaderLines) {
        return State::HeadersTooLarge;
    }
    return State::Incomplete;
}

// A line without its end yet is refused as soon as it is sure to be too long.
HttpHead::State HttpHead::checkUnfinishedLine() const {
    const size_t soFar = bytes_.size() - lineStart_;
    if (!requestLineSeen_) {
        return soFar >= kMaxRequestLineBytes ? State::LineTooLong : State::Incomplete;
    }
    return soFar >= kMaxHeaderLineBytes || headerBytes_ + soFar >= kMaxHeaderBytes
               ? State::HeadersTooLarge
               : State::Incomplete;
}

std::string HttpHead::rawHeader(const std::string &name) const {
    for (size_t lineStart = headersStart_; lineStart < headEnd_;) {
        const size_t lineEnd = bytes_.find('\n', lineStart);
        const std::string line = bytes_.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;
        // Lines without CRLF are skipped by the server, so they carry nothing here either.
        if (line.empty() || line.back() != '\r') continue;
        const size_t colon = line.find(':');
        if (colon != std::string::npos && SameNameIgnoringCase(line, colon, name)) {
            return Trimmed(line, colon + 1, line.size() - 1);
        }
    }
    return {};
}
