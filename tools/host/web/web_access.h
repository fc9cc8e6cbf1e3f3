// SPDX-License-Identifier: MIT
// Who may see the live page of --serve: the listening address, the token, and the checks made
// on every request (loopback Host names, the token, GET only) before anything is served.
#ifndef MODBUS_ASCII_HOST_WEB_ACCESS_H
#define MODBUS_ASCII_HOST_WEB_ACCESS_H

#include <QString>
#include <optional>
#include <string>

// Most requests served at once (an event stream is one as long as it is open); a connection
// beyond them is answered 503 as soon as it is accepted.
constexpr int kMaxWebClients = 8;

// Where --serve listens and the token its requests must carry (empty: none needed).
struct ServeSettings {
    std::string address = "127.0.0.1";  // an IPv4 or IPv6 literal, without brackets
    int port = 0;
    bool loopback = true;
    std::string token;
    bool tokenMade = false;  // made up by the tool, not given with --serve-token
};

// [ADDRESS:]PORT of --serve and the --serve-token value, if given. A non-loopback address
// without a token gets a random one; an empty token there is refused. Throws ToolError
// naming the option.
ServeSettings ParseServeSettings(const QString &text, const std::optional<QString> &token);

// True for "localhost", 127.0.0.0/8 and ::1, each with or without a port (IPv6 in brackets).
bool IsLoopbackHost(const std::string &host);

// What a request brings that the checks look at.
struct RequestFacts {
    std::string method;
    std::string host;   // the Host header; empty when missing
    std::string token;  // from ?token= or "Authorization: Bearer"; empty when missing
};

// The HTTP status that refuses the request (403 foreign Host, 401 token, 405 method), or 0
// when it may go on to its path.
int RefusalStatus(const ServeSettings &settings, const RequestFacts &request);

// The page's address as it is printed, with the token when one is needed, percent-encoded
// (all but letters, digits and "-._~"), so that the page gets back exactly that token.
QString PageAddress(const ServeSettings &settings, const QString &machineName);

#endif  // MODBUS_ASCII_HOST_WEB_ACCESS_H
