// SPDX-License-Identifier: MIT
// Texts and JSON objects that report the outcome of the host's writes.
#include "write_report.h"

#include <QJsonArray>
#include <QStringList>

#include "run_stats.h"

namespace {

QJsonObject RequestCounts(const WriteResult &result) {
    QJsonObject counts;
    for (auto it = result.requests.cbegin(); it != result.requests.cend(); ++it) {
        counts.insert(QLatin1String(WriteOutcomeName(it.key())), it.value());
    }
    return counts;
}

// "4x:35 (5)", "4x_bit:60.3", "0x:7": where a request writes.
QString RequestPlace(const RW_VAR &request) {
    const QString address =
        request.area == QLatin1String("4x_bit")
            ? QStringLiteral("%1.%2").arg(request.address / 16).arg(request.address % 16)
            : QString::number(request.address);
    const QString place = request.area + QLatin1Char(':') + address;
    return request.count > 1 ? place + QStringLiteral(" (%1)").arg(request.count) : place;
}

QString RequestFate(const PlannedWrite &planned) {
    QString fate = RequestPlace(planned.request) + QLatin1Char(' ') +
                   QLatin1String(WriteOutcomeName(planned.outcome));
    if (planned.code != 0) {
        fate += QStringLiteral(" (code %1 %2)").arg(planned.code).arg(ResultName(planned.code));
    } else if (planned.outcome != WriteOutcome::Done) {
        fate += QStringLiteral(" (the run ended first)");
    }
    return fate;
}

// The requests of a write that did not end well; the first few in a table row.
QString NotDoneText(const WriteResult &result) {
    constexpr int kShown = 3;
    QStringList fates;
    for (int i = 0; i < result.notDone.size() && i < kShown; ++i) {
        fates.append(RequestFate(result.notDone[i]));
    }
    if (result.notDone.size() > kShown) {
        fates.append(QStringLiteral("%1 more").arg(result.notDone.size() - kShown));
    }
    return fates.join(QStringLiteral("; "));
}

}  // namespace

// How many writes ended with each outcome, for the summary.
QJsonObject WriteTotals(const QList<WriteResult> &writes) {
    QJsonObject totals;
    for (const WriteResult &write : writes) {
        const QString name = QLatin1String(WriteOutcomeName(write.outcome));
        totals.insert(name, totals.value(name).toInt() + 1);
    }
    return totals;
}

QString TotalsText(const QJsonObject &counts) {
    QStringList parts;
    for (auto it = counts.begin(); it != counts.end(); ++it) {
        parts.append(QStringLiteral("%1 %2").arg(it.key()).arg(it.value().toInt()));
    }
    return parts.join(QStringLiteral(", "));
}

QString WriteRequestsText(const WriteResult &result) {
    QString text = TotalsText(RequestCounts(result));
    if (!result.notDone.isEmpty()) text += QStringLiteral(": ") + NotDoneText(result);
    return text;
}

QJsonObject JsonWrite(const WriteResult &result) {
    QJsonArray notDone;
    for (const PlannedWrite &planned : result.notDone) {
        notDone.append(QJsonObject{{"address", planned.request.address},
                                   {"count", planned.request.count},
                                   {"outcome", WriteOutcomeName(planned.outcome)},
                                   {"code", planned.code}});
    }
    return QJsonObject{
        {"text", result.write.text},         {"station", result.write.station},
        {"area", result.write.area},         {"address", result.write.address},
        {"count", result.write.count},       {"outcome", WriteOutcomeName(result.outcome)},
        {"requests", RequestCounts(result)}, {"notDone", notDone}};
}

// A long --write is cut for the table; JSON keeps it whole.
QString ShortWriteText(const QString &text) {
    constexpr int kWidth = 32;
    return text.size() <= kWidth ? text : text.left(kWidth - 3) + QStringLiteral("...");
}
