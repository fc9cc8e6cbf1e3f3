// SPDX-License-Identifier: MIT
// Texts and JSON objects that report the outcome of the host's writes.
#ifndef MODBUS_ASCII_HOST_WRITE_REPORT_H
#define MODBUS_ASCII_HOST_WRITE_REPORT_H

#include <QJsonObject>
#include <QList>
#include <QString>

#include "write_queue.h"

// How many writes ended with each outcome: {"done": 3, "failed": 1}.
QJsonObject WriteTotals(const QList<WriteResult> &writes);
// Such counts as text: "done 3, failed 1".
QString TotalsText(const QJsonObject &counts);
// A write's requests by outcome, and the first few that did not end well.
QString WriteRequestsText(const WriteResult &result);
// One write as the JSON output shows it.
QJsonObject JsonWrite(const WriteResult &result);
// A long --write cut for the table; JSON keeps it whole.
QString ShortWriteText(const QString &text);

#endif  // MODBUS_ASCII_HOST_WRITE_REPORT_H
