// SPDX-License-Identifier: MIT
// The run log of --log FILE: JSON lines that tools/plot_run.py draws. A "pass" record holds
// every variable's values after a pass, a "transaction" record what one request came to.
#ifndef MODBUS_ASCII_HOST_RUN_LOG_H
#define MODBUS_ASCII_HOST_RUN_LOG_H

#include <QFile>
#include <QJsonObject>
#include <QList>

#include "report.h"
#include "serial_link.h"

// time is seconds since the epoch, as every record carries it.
QJsonObject PassRecord(double time, qint64 pass, const QList<VariableValues> &rows);
QJsonObject TransactionRecord(double time, const QByteArray &frame, int result,
                              const Exchange &exchange);

class RunLog {
public:
    // Creates (or empties) the file at path; an empty path logs nothing. Throws ToolError
    // when the file cannot be written.
    explicit RunLog(const QString &path);

    void pass(qint64 pass, const QList<VariableValues> &rows);
    void transaction(const QByteArray &frame, int result, const Exchange &exchange);
    // A station set aside or brought back: {"record":"station","station":N,"state":TEXT}.
    void station(int station, const QString &state);
    // The serial port lost or back: {"record":"port","state":TEXT}.
    void port(const QString &state);

private:
    void write(const QJsonObject &record);

    QFile file_;
};

#endif  // MODBUS_ASCII_HOST_RUN_LOG_H
