// SPDX-License-Identifier: MIT
#include "link_address.h"

#include <QRegularExpression>

#include "tool_error.h"

namespace {

[[noreturn]] void Refuse(const QString &text, const QString &why) {
    throw ToolError(QStringLiteral("--port %1: %2").arg(text, why));
}

LinkKind KindOfScheme(const QString &text, const QString &scheme) {
    if (scheme == QLatin1String("tcp")) return LinkKind::RawTcp;
    if (scheme == QLatin1String("rfc2217")) return LinkKind::Rfc2217;
    Refuse(text, QStringLiteral("unknown scheme '%1://' (tcp:// for a raw stream, rfc2217:// for "
                                "Telnet with the COM-PORT option, or a serial device)")
                     .arg(scheme));
}

quint16 PortOf(const QString &text, const QString &digits) {
    if (digits.isEmpty()) Refuse(text, QStringLiteral("no TCP port (HOST:PORT)"));
    bool ok = false;
    const int port = digits.toInt(&ok, 10);
    if (!ok || port < 1 || port > 65535) {
        Refuse(text, QStringLiteral("TCP port %1 is not from 1 to 65535").arg(digits));
    }
    return static_cast<quint16>(port);
}

}  // namespace

LinkAddress ParseLinkAddress(const QString &text) {
    LinkAddress address;
    const int schemeEnd = text.indexOf(QLatin1String("://"));
    if (schemeEnd < 0) {
        address.device = text;
        return address;
    }
    address.kind = KindOfScheme(text, text.left(schemeEnd).toLower());
    // HOST, [IPv6] or nothing; then :PORT; a trailing slash is tolerated.
    static const QRegularExpression kAuthority(
        QStringLiteral("^(\\[[^\\]/]*\\]|[^:/\\[\\]]*)(?::([^/]*))?/?$"));
    const QRegularExpressionMatch match = kAuthority.match(text.mid(schemeEnd + 3));
    if (!match.hasMatch()) Refuse(text, QStringLiteral("not SCHEME://HOST:PORT"));
    address.host = match.captured(1);
    if (address.host.startsWith(QLatin1Char('['))) address.host = address.host.mid(1).chopped(1);
    if (address.host.isEmpty()) Refuse(text, QStringLiteral("no host (HOST:PORT)"));
    address.port = PortOf(text, match.captured(2));
    return address;
}
