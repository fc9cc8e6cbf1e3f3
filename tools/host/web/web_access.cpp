// SPDX-License-Identifier: MIT
// The access checks of the live page and the address it is printed with.
#include "web_access.h"

#include <QUrl>

namespace {

// Compares the whole token whatever differs first, so that timing tells nothing.
bool SameToken(const std::string &given, const std::string &expected) {
    unsigned difference = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < expected.size(); ++i) {
        difference |= static_cast<unsigned char>(i < given.size() ? given[i] : 0) ^
                      static_cast<unsigned char>(expected[i]);
    }
    return difference == 0;
}

}  // namespace

int RefusalStatus(const ServeSettings &settings, const RequestFacts &request) {
    if (settings.loopback && !IsLoopbackHost(request.host)) return 403;
    if (!settings.token.empty() && !SameToken(request.token, settings.token)) return 401;
    if (request.method != "GET") return 405;
    return 0;
}

QString PageAddress(const ServeSettings &settings, const QString &machineName) {
    QString host = QString::fromStdString(settings.address);
    if (settings.address == "0.0.0.0" || settings.address == "::") {
        host = machineName;
    } else if (host.contains(QLatin1Char(':'))) {
        host = QStringLiteral("[%1]").arg(host);
    }
    QString address = QStringLiteral("http://%1:%2/").arg(host).arg(settings.port);
    if (!settings.token.empty()) {
        address +=
            QStringLiteral("?token=") +
            QString::fromLatin1(QUrl::toPercentEncoding(QString::fromStdString(settings.token)));
    }
    return address;
}
