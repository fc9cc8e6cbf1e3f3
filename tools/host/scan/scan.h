// SPDX-License-Identifier: MIT
// The bus scan of --scan FIRST-LAST: each station gets a one-shot read of one variable
// through the driver, and ends as answered (with the value), exception (with its code) or
// silent, with its response time.
#ifndef MODBUS_ASCII_HOST_SCAN_H
#define MODBUS_ASCII_HOST_SCAN_H

#include <QJsonObject>
#include <QList>
#include <QString>
#include <functional>
#include <memory>
#include <optional>

#include "driver_api.h"
#include "host_options.h"
#include "line_health.h"
#include "serial_link.h"

// Stations FIRST-LAST, both from 1 to 247 (the addresses a slave may have).
struct StationRange {
    int first = 1;
    int last = 247;
};
// Throws ToolError for anything but FIRST-LAST with FIRST <= LAST in 1 to 247.
StationRange ParseStationRange(const QString &text);

enum class ProbeStatus { Answered, Exception, Silent };

struct ProbeResult {
    int station = 0;
    ProbeStatus status = ProbeStatus::Silent;
    Outcome outcome = Outcome::NoReply;  // of the last transaction
    std::optional<quint32> value;        // when answered
    std::optional<int> code;             // the exception code
    std::optional<double> responseMs;    // absent when nothing answered
};

// The result of a probe from its last transaction; the value is filled in later.
ProbeResult ProbeResultOf(int station, int result, const Exchange &exchange);

// The exception code of an exception reply (":0183027A\r\n" holds 02).
int ExceptionCodeOf(const QByteArray &reply);

// {"station":5,"status":"exception","code":2,"response_ms":8.1}: value when answered, code
// for an exception, outcome when a silent station's line brought something unreadable.
QJsonObject ProbeJson(const ProbeResult &probe);

// Opens the link as a polling run does (--wait-for-port included).
using LinkOpener = std::function<std::unique_ptr<SerialLink>()>;

// Scans the stations of options.scanRange over the link openLink opens; returns the exit
// status: 0 when at least one station answered, 1 when none did.
int RunScan(const DriverApi &api, ComInfo &comInfo, const HostOptions &options,
            const LinkOpener &openLink);

#endif  // MODBUS_ASCII_HOST_SCAN_H
