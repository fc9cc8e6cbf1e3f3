// SPDX-License-Identifier: MIT
// Everything the tool prints on standard output: the read plan, the value tables (or JSON
// lines), the outcome of the writes and the closing summary.
#include "report.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>
#include <cstdio>

#include "line_trace.h"
#include "write_report.h"

namespace {

void PrintLine(FILE *stream, const QString &line) {
    std::fputs(line.toUtf8().constData(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);  // scripts read the output line by line through a pipe
}

void PrintJson(const QJsonObject &object) {
    PrintLine(stdout, QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
}

// Function code and unit of the frame the driver builds for a read request of area.
struct ReadShape {
    int function;
    const char *unit;
    int unitsPerCount;  // "0x" and "1x" requests count bytes of bits
};

ReadShape ShapeOf(const QString &area) {
    if (area == QLatin1String("0x")) return {1, "coils", 8};
    if (area == QLatin1String("1x")) return {2, "inputs", 8};
    if (area.startsWith(QLatin1String("3x"))) return {4, "registers", 1};
    return {3, "registers", 1};
}

QString Hex(quint32 value, int digits) {
    return QStringLiteral("0x") + QString::number(value, 16).rightJustified(digits, '0').toUpper();
}

QString FormatValues(const VariableValues &row) {
    if (!row.confirmed && row.ageMs) return QStringLiteral("? (not read again in its pass)");
    if (!row.confirmed) return QStringLiteral("? (not confirmed by the slave)");
    const ValueKind kind = KindOfArea(row.variable.area);
    QStringList texts;
    for (quint32 value : row.values) {
        if (kind == ValueKind::Bit) {
            texts.append(QString::number(value));
        } else {
            const int digits = kind == ValueKind::Register ? 4 : 8;
            texts.append(QStringLiteral("%1 (%2)").arg(value).arg(Hex(value, digits)));
        }
    }
    return texts.join(QLatin1Char(' '));
}

// "0.25 s" (to the hundredth), or "-" when the values have no answer behind them.
QString AgeText(const std::optional<qint64> &ageMs) {
    if (!ageMs) return QStringLiteral("-");
    return QStringLiteral("%1 s").arg(static_cast<double>(*ageMs) / 1000, 0, 'f', 2);
}

QJsonObject JsonRow(const VariableValues &row) {
    QJsonArray values;
    for (quint32 value : row.values) values.append(static_cast<double>(value));
    return QJsonObject{
        {"name", row.variable.name},
        {"station", row.variable.station},
        {"area", row.variable.area},
        {"address", row.variable.addressText},
        {"encodedAddress", row.variable.address},
        {"length", row.variable.length},
        {"confirmed", row.confirmed},
        {"ageMs", row.ageMs ? QJsonValue(static_cast<double>(*row.ageMs)) : QJsonValue()},
        {"values", row.confirmed ? QJsonValue(values) : QJsonValue()}};
}

// One line of columns; a negative width aligns left. The texts are joined, never used as
// format strings, so a '%' in a name or a reply is printed as it is.
QString Columns(const QList<QPair<QString, int>> &columns) {
    QStringList cells;
    for (const auto &[text, width] : columns) {
        cells.append(width < 0 ? text.leftJustified(-width) : text.rightJustified(width));
    }
    return cells.join(QLatin1Char(' '));
}

double Milliseconds(qint64 nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e6;
}

QString AbandonedText(const RunStats &stats) {
    QStringList parts;
    for (auto it = stats.abandoned.cbegin(); it != stats.abandoned.cend(); ++it) {
        parts.append(QStringLiteral("code %1 %2: %3")
                         .arg(it.key())
                         .arg(ResultName(it.key()))
                         .arg(it.value()));
    }
    return parts.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(parts.join(", "));
}

struct SummaryFigures {
    double lineMeanMs = 0;
    double lineMaxMs = 0;
    double driverCpuUs = 0;  // per transaction
    int failedCompletions = 0;
};

SummaryFigures FiguresOf(const RunStats &stats) {
    SummaryFigures figures;
    if (stats.transactions > 0) {
        const auto transactions = static_cast<double>(stats.transactions);
        figures.lineMeanMs = Milliseconds(stats.lineNanosecondsTotal) / transactions;
        figures.driverCpuUs = static_cast<double>(stats.driverCpuNanoseconds) / 1e3 / transactions;
    }
    figures.lineMaxMs = Milliseconds(stats.lineNanosecondsMax);
    for (const Completion &completion : stats.completions) {
        if (completion.status != 1) ++figures.failedCompletions;
    }
    return figures;
}

QJsonObject StrayFramesJson(const RunStats &stats) {
    QJsonObject strays;
    for (int kind = 0; kind < kFrameKindCount; ++kind) {
        if (stats.strayFrames[kind] > 0) {
            strays.insert(QLatin1String(FrameKindName(static_cast<FrameKind>(kind))),
                          stats.strayFrames[kind]);
        }
    }
    return strays;
}

QString StrayFramesText(const RunStats &stats) {
    const QString counts = TotalsText(StrayFramesJson(stats));
    return counts.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(counts);
}

QJsonObject LateRepliesJson(const LateReplyFigures &late) {
    return QJsonObject{
        {"count", late.lateReplies},
        {"latestMs", late.latestMs},
        {"longestMs", late.longestMs},
        {"coveringTimeoutMs", late.lateReplies > 0 ? CoveringTimeoutMs(late.latestMs) : 0},
        {"holds", late.holds},
        {"heldMs", late.heldMs}};
}

QString LateRepliesText(const LateReplyFigures &late) {
    QString text = QStringLiteral("late replies: %1").arg(late.lateReplies);
    if (late.lateReplies > 0) {
        text += QStringLiteral(
                    " (the latest came %1 ms after its request: --timeout-ms %2 would "
                    "have covered it; the longest %3 ms)")
                    .arg(late.latestMs)
                    .arg(CoveringTimeoutMs(late.latestMs))
                    .arg(late.longestMs);
    }
    return text + QStringLiteral("; requests held back for owed replies: %1 (%2 ms)")
                      .arg(late.holds)
                      .arg(late.heldMs);
}

QJsonObject JsonSummary(const RunStats &stats) {
    const SummaryFigures figures = FiguresOf(stats);
    QJsonObject abandoned;
    for (auto it = stats.abandoned.cbegin(); it != stats.abandoned.cend(); ++it) {
        abandoned.insert(QString::number(it.key()), it.value());
    }
    QJsonArray completions;
    for (const Completion &c : stats.completions) {
        completions.append(QJsonObject{{"deviceId", c.deviceId},
                                       {"ownerType", c.ownerType},
                                       {"ownerId", c.ownerId},
                                       {"status", c.status}});
    }
    return QJsonObject{{"transactions", stats.transactions},
                       {"accepted", stats.accepted},
                       {"retried", stats.retried},
                       {"abandoned", abandoned},
                       {"lineTimeMeanMs", figures.lineMeanMs},
                       {"lineTimeMaxMs", figures.lineMaxMs},
                       {"driverCpuUsPerTransaction", figures.driverCpuUs},
                       {"passes", stats.passes},
                       {"driverCycleMarks", stats.driverCycleMarks},
                       {"interrupted", stats.interrupted},
                       {"exceptionReplies", stats.exceptionReplies},
                       {"strayFrames", StrayFramesJson(stats)},
                       {"noiseCharacters", stats.noiseCharacters},
                       {"echo", QJsonObject{{"mode", EchoModeName(stats.echoMode)},
                                            {"found", EchoFindingName(stats.echoFinding)},
                                            {"removed", stats.echoesRemoved}}},
                       {"lateReplies", LateRepliesJson(stats.lateReplies)},
                       {"portLosses", stats.portLosses},
                       {"maxAgeMs", static_cast<double>(stats.maxAgeMs)},
                       {"portDownMs", static_cast<double>(stats.portDownMs)},
                       {"stations", HealthJson(stats.health)},
                       {"completions", completions}};
}

}  // namespace

void Reporter::plan(const QList<RW_VAR> &readList) const {
    QJsonArray requests;
    if (format_ == OutputFormat::Table) {
        PrintLine(stdout, Columns({{"request", 7},
                                   {"station", 7},
                                   {"area", -10},
                                   {"function", 8},
                                   {"address", 7},
                                   {"quantity", 0}}));
    }
    for (int i = 0; i < readList.size(); ++i) {
        const RW_VAR &request = readList[i];
        const ReadShape shape = ShapeOf(request.area);
        const int quantity = request.count * shape.unitsPerCount;
        requests.append(QJsonObject{{"station", request.station},
                                    {"area", request.area},
                                    {"function", shape.function},
                                    {"address", request.address},
                                    {"quantity", quantity}});
        if (format_ == OutputFormat::Table) {
            PrintLine(stdout, Columns({{QString::number(i + 1), 7},
                                       {QString::number(request.station), 7},
                                       {request.area, -10},
                                       {QString::number(shape.function), 8},
                                       {QString::number(request.address), 7},
                                       {QString::number(quantity), 8},
                                       {QLatin1String(shape.unit), 0}}));
        }
    }
    if (format_ == OutputFormat::Json) PrintJson(QJsonObject{{"plan", requests}});
}

void Reporter::values(qint64 pass, bool final, const QList<VariableValues> &rows) const {
    if (format_ == OutputFormat::Json) {
        PrintJson(ValuesJson(pass, final, rows));
        return;
    }
    PrintLine(stdout, final ? QStringLiteral("-- at the end (passes: %1)").arg(pass)
                            : QStringLiteral("-- after pass %1").arg(pass));
    PrintLine(stdout, Columns({{"name", -20},
                               {"station", 7},
                               {"area", -10},
                               {"address", -9},
                               {"length", 6},
                               {"age", 8},
                               {"values", 0}}));
    for (const VariableValues &row : rows) {
        PrintLine(stdout, Columns({{row.variable.name, -20},
                                   {QString::number(row.variable.station), 7},
                                   {row.variable.area, -10},
                                   {row.variable.addressText, -9},
                                   {QString::number(row.variable.length), 6},
                                   {AgeText(row.ageMs), 8},
                                   {FormatValues(row), 0}}));
    }
}

void Reporter::writes(const QList<WriteResult> &results) const {
    if (results.isEmpty()) return;
    if (format_ == OutputFormat::Json) {
        for (const WriteResult &result : results) PrintJson({{"write", JsonWrite(result)}});
        return;
    }
    PrintLine(stdout, QStringLiteral("-- writes"));
    PrintLine(stdout, Columns({{"write", -32}, {"station", 7}, {"outcome", -11}, {"requests", 0}}));
    for (const WriteResult &result : results) {
        PrintLine(stdout, Columns({{ShortWriteText(result.write.text), -32},
                                   {QString::number(result.write.station), 7},
                                   {QLatin1String(WriteOutcomeName(result.outcome)), -11},
                                   {WriteRequestsText(result), 0}}));
    }
}

void Reporter::summary(const RunStats &stats, const QList<WriteResult> &writes) const {
    if (format_ == OutputFormat::Json) {
        QJsonObject totals = JsonSummary(stats);
        totals.insert(QStringLiteral("writes"), WriteTotals(writes));
        PrintJson(QJsonObject{{"summary", totals}});
        return;
    }
    if (!writes.isEmpty()) {
        PrintLine(stdout, QStringLiteral("writes: %1 (%2)")
                              .arg(writes.size())
                              .arg(TotalsText(WriteTotals(writes))));
    }
    const SummaryFigures figures = FiguresOf(stats);
    PrintLine(stdout, QStringLiteral("transactions: %1, accepted %2, retried %3, abandoned %4%5")
                          .arg(stats.transactions)
                          .arg(stats.accepted)
                          .arg(stats.retried)
                          .arg(stats.abandonedTotal())
                          .arg(AbandonedText(stats)));
    PrintLine(stdout, QStringLiteral("frames set aside: %1%2; exception replies: %3")
                          .arg(stats.strayFramesTotal())
                          .arg(StrayFramesText(stats))
                          .arg(stats.exceptionReplies));
    PrintLine(stdout, QStringLiteral("local echo (%1): %2; echoes removed: %3")
                          .arg(QLatin1String(EchoModeName(stats.echoMode)),
                               EchoFindingText(stats.echoMode, stats.echoFinding))
                          .arg(stats.echoesRemoved));
    PrintLine(stdout, QStringLiteral("time on the line per transaction: mean %1 ms, max %2 ms")
                          .arg(figures.lineMeanMs, 0, 'f', 2)
                          .arg(figures.lineMaxMs, 0, 'f', 2));
    PrintLine(stdout,
              QStringLiteral("driver CPU time per transaction (ComCommunication + DataCom): %1 us")
                  .arg(figures.driverCpuUs, 0, 'f', 1));
    PrintLine(stdout, QStringLiteral(
                          "passes: %1%2 (driver cycle marks: %3), completions: %4 (%5 abandoned)")
                          .arg(stats.passes)
                          .arg(stats.interrupted ? QStringLiteral(" (interrupted)") : QString())
                          .arg(stats.driverCycleMarks)
                          .arg(stats.completions.size())
                          .arg(figures.failedCompletions));
    for (const QString &line : HealthTable(stats.health)) PrintLine(stdout, line);
    PrintLine(stdout, LateRepliesText(stats.lateReplies));
    PrintLine(stdout,
              QStringLiteral("%1 lost: %2 times, %3 ms away")
                  .arg(networkLink_ ? QStringLiteral("connection") : QStringLiteral("serial port"))
                  .arg(stats.portLosses)
                  .arg(stats.portDownMs));
}

QJsonObject ValueRowJson(const VariableValues &row) {
    return JsonRow(row);
}

QJsonObject ValuesJson(qint64 pass, bool final, const QList<VariableValues> &rows) {
    QJsonArray array;
    for (const VariableValues &row : rows) array.append(JsonRow(row));
    return QJsonObject{{"cycle", pass}, {"final", final}, {"values", array}};
}

QJsonObject SummaryJson(const RunStats &stats) {
    return JsonSummary(stats);
}
