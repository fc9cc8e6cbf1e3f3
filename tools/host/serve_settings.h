// SPDX-License-Identifier: MIT
// Where the live page of --serve listens and the token it asks for: the option's parsing, and
// which names and addresses mean this machine.
#ifndef MODBUS_ASCII_HOST_SERVE_SETTINGS_H
#define MODBUS_ASCII_HOST_SERVE_SETTINGS_H

#include <QString>
#include <optional>
#include <string>

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

#endif  // MODBUS_ASCII_HOST_SERVE_SETTINGS_H
