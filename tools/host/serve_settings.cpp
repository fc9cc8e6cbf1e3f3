// SPDX-License-Identifier: MIT
// Parsing of --serve and --serve-token; the names and addresses of this machine.
#include "serve_settings.h"

#include <arpa/inet.h>

#include <QRandomGenerator>
#include <algorithm>
#include <cctype>

#include "tool_error.h"

namespace {

constexpr int kTokenBytes = 16;

bool IsIpv4(const std::string &text, in_addr *address = nullptr) {
    in_addr parsed{};
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
    if (address != nullptr) *address = parsed;
    return true;
}

bool IsIpv6(const std::string &text, in6_addr *address = nullptr) {
    in6_addr parsed{};
    if (inet_pton(AF_INET6, text.c_str(), &parsed) != 1) return false;
    if (address != nullptr) *address = parsed;
    return true;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A name or address literal (IPv6 without brackets) that always means this machine.
bool IsLoopbackName(const std::string &name) {
    in_addr v4{};
    if (IsIpv4(name, &v4)) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (IsIpv6(name, &v6)) return IN6_IS_ADDR_LOOPBACK(&v6);
    return Lower(name) == "localhost";
}

// host without its ":PORT" and IPv6 brackets; empty when it is malformed.
std::string HostName(const std::string &host) {
    if (!host.empty() && host.front() == '[') {
        const size_t close = host.find(']');
        if (close == std::string::npos) return {};
        const std::string rest = host.substr(close + 1);
        if (!rest.empty() && rest.front() != ':') return {};
        return host.substr(1, close - 1);
    }
    const size_t colon = host.find(':');
    if (colon != host.rfind(':')) return {};  // an IPv6 address must come in brackets
    return host.substr(0, colon);
}

std::string RandomToken() {
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (int i = 0; i < kTokenBytes; ++i) {
        const quint32 byte = QRandomGenerator::system()->bounded(256U);
        token += kHex[byte >> 4];
        token += kHex[byte & 0xF];
    }
    return token;
}

// The address part of [ADDRESS:]PORT, checked; "localhost" stands for 127.0.0.1.
std::string ListenAddress(const QString &text) {
    std::string address = text.toStdString();
    if (address.size() >= 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
        if (IsIpv6(address)) return address;
    } else if (Lower(address) == "localhost") {
        return "127.0.0.1";
    } else if (IsIpv4(address)) {
        return address;
    }
    throw ToolError(QStringLiteral("--serve: '%1' is not an IPv4 address, an IPv6 address in "
                                   "brackets or localhost")
                        .arg(text));
}

}  // namespace

ServeSettings ParseServeSettings(const QString &text, const std::optional<QString> &token) {
    ServeSettings settings;
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    const QString portText = colon < 0 ? text : text.mid(colon + 1);
    if (colon >= 0) settings.address = ListenAddress(text.left(colon));
    settings.port = WholeNumber(portText, QStringLiteral("--serve: port"), 1, 65535);
    settings.loopback = IsLoopbackName(settings.address);
    if (token) {
        if (token->isEmpty() && !settings.loopback) {
            throw ToolError(
                QStringLiteral("--serve-token: an empty token would let anyone on "
                               "the network in; give one or leave the option out"));
        }
        settings.token = token->toStdString();
    } else if (!settings.loopback) {
        settings.token = RandomToken();
        settings.tokenMade = true;
    }
    return settings;
}

bool IsLoopbackHost(const std::string &host) {
    const std::string name = HostName(host);
    return !name.empty() && IsLoopbackName(name);
}
