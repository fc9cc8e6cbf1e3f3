// SPDX-License-Identifier: MIT
// Records of the run log, one JSON object a line, each written out at once so that a run
// that is killed still leaves a readable log.
#include "run_log.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include "line_health.h"
#include "tool_error.h"

namespace {

double SecondsSinceEpoch() {
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1e3;
}

}  // namespace

QJsonObject PassRecord(double time, qint64 pass, const QList<VariableValues> &rows) {
    QJsonArray tags;
    for (const VariableValues &row : rows) {
        QJsonArray values;
        for (quint32 value : row.values) values.append(static_cast<double>(value));
        tags.append(QJsonObject{{"name", row.variable.name},
                                {"station", row.variable.station},
                                {"area", row.variable.area},
                                {"address", row.variable.addressText},
                                {"confirmed", row.confirmed},
                                {"values", row.confirmed ? QJsonValue(values) : QJsonValue()}});
    }
    return QJsonObject{{"record", "pass"}, {"time", time}, {"pass", pass}, {"tags", tags}};
}

QJsonObject TransactionRecord(double time, const QByteArray &frame, int result,
                              const Exchange &exchange) {
    // A time-out is not a response time.
    const QJsonValue response =
        exchange.reply.isEmpty()
            ? QJsonValue()
            : QJsonValue(static_cast<double>(exchange.responseNanoseconds) / 1e6);
    return QJsonObject{{"record", "transaction"},
                       {"time", time},
                       {"station", StationOfFrame(frame)},
                       {"function", FunctionOfFrame(frame)},
                       {"result", result},
                       {"outcome", OutcomeName(ClassifyTransaction(result, exchange))},
                       {"response_ms", response},
                       {"stray_frames", exchange.strays.size()}};
}

RunLog::RunLog(const QString &path) {
    if (path.isEmpty()) return;
    file_.setFileName(path);
    if (!file_.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        throw ToolError(
            QStringLiteral("--log: cannot write %1: %2").arg(path, file_.errorString()));
    }
}

void RunLog::pass(qint64 pass, const QList<VariableValues> &rows) {
    if (file_.isOpen()) write(PassRecord(SecondsSinceEpoch(), pass, rows));
}

void RunLog::transaction(const QByteArray &frame, int result, const Exchange &exchange) {
    if (file_.isOpen()) write(TransactionRecord(SecondsSinceEpoch(), frame, result, exchange));
}

void RunLog::station(int station, const QString &state) {
    if (!file_.isOpen()) return;
    write(QJsonObject{{"record", "station"},
                      {"time", SecondsSinceEpoch()},
                      {"station", station},
                      {"state", state}});
}

void RunLog::port(const QString &state) {
    if (file_.isOpen())
        write({{"record", "port"}, {"time", SecondsSinceEpoch()}, {"state", state}});
}

void RunLog::write(const QJsonObject &record) {
    file_.write(QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n');
    file_.flush();
}
