// SPDX-License-Identifier: MIT
// Who may see the live page of --serve: the checks made on every request (loopback Host names,
// the token, GET only) before anything is served, and the page's address as it is printed.
#ifndef MODBUS_ASCII_HOST_WEB_ACCESS_H
#define MODBUS_ASCII_HOST_WEB_ACCESS_H

#include <QString>
#include <string>

#include "serve_settings.h"

// Most requests served at once (an event stream is one as long as it is open); a connection
// beyond them is answered 503 as soon as it is accepted.
constexpr int kMaxWebClients = 8;

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
