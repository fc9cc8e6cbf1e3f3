// SPDX-License-Identifier: MIT
// What --port names: a serial device, or a serial device server reached over TCP as a raw
// stream (tcp://HOST:PORT) or through Telnet with the COM-PORT option (rfc2217://HOST:PORT).
#ifndef MODBUS_ASCII_HOST_LINK_ADDRESS_H
#define MODBUS_ASCII_HOST_LINK_ADDRESS_H

#include <QString>

enum class LinkKind { Serial, RawTcp, Rfc2217 };

struct LinkAddress {
    LinkKind kind = LinkKind::Serial;
    QString device;  // the serial device, as given
    QString host;    // a name or an address (an IPv6 one without its brackets)
    quint16 port = 0;
};

// The address --port gives. Anything with "://" is a URL and never a device name; a URL that
// is not tcp:// or rfc2217:// with a host and a port from 1 to 65535 throws ToolError naming
// --port and what is wrong.
LinkAddress ParseLinkAddress(const QString &text);

// True for the links that reach the line through a device server.
inline bool IsNetworkLink(const LinkAddress &address) {
    return address.kind != LinkKind::Serial;
}

#endif  // MODBUS_ASCII_HOST_LINK_ADDRESS_H
