// SPDX-License-Identifier: MIT
// Everything the host prints: the read plan, the value tables (or JSON lines), the frame trace,
// completions and the closing summary. Tables, JSON and the summary go to standard output;
// the trace and completions to standard error, so that JSON output stays parseable.
#ifndef MODBUS_ASCII_HOST_REPORT_H
#define MODBUS_ASCII_HOST_REPORT_H

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <optional>

#include "host_options.h"
#include "modbus_ascii_master.h"
#include "run_stats.h"
#include "variables.h"
#include "write_queue.h"

// One variable with the values the driver holds for it.
struct VariableValues {
    Variable variable;
    QList<quint32> values;
    bool confirmed = false;  // read (or written and acknowledged) since the cache last changed
    // How long ago the answer the values came from arrived, while every one of them has one.
    std::optional<qint64> ageMs;
};

// The JSON the tool prints, for other views of the run (the live page of --serve): one row of
// the value table, the table after a pass ({cycle, final, values}), and the summary without
// the writes.
QJsonObject ValueRowJson(const VariableValues &row);
QJsonObject ValuesJson(qint64 pass, bool final, const QList<VariableValues> &rows);
QJsonObject SummaryJson(const RunStats &stats);

class Reporter {
public:
    // networkLink: the port is a connection to a serial device server.
    explicit Reporter(OutputFormat format, bool networkLink = false)
        : format_(format), networkLink_(networkLink) {}

    void plan(const QList<RW_VAR> &readList) const;
    // The table after pass number pass, or (final) the one at the end of the run.
    void values(qint64 pass, bool final, const QList<VariableValues> &rows) const;
    // The outcome of every --write: one row, or one JSON object, each.
    void writes(const QList<WriteResult> &results) const;
    void summary(const RunStats &stats, const QList<WriteResult> &writes) const;

private:
    OutputFormat format_;
    bool networkLink_;
};

#endif  // MODBUS_ASCII_HOST_REPORT_H
