// SPDX-License-Identifier: MIT
// Per-station transaction outcomes and response times, and how the summary shows them.
#include "line_health.h"

#include <QJsonObject>
#include <algorithm>
#include <cmath>

namespace {

// Rejection codes of DataCom for a reply whose length differs from the one expected.
constexpr int kFirstWrongLengthCode = 71;
constexpr int kLastWrongLengthCode = 82;

// A reply reached the driver and was rejected: its code tells a wrong length from bad
// content; a reply sent again (0) passed the line layer's length check, so its content failed.
Outcome OutcomeOfRejectedReply(int result) {
    return result >= kFirstWrongLengthCode && result <= kLastWrongLengthCode ? Outcome::WrongLength
                                                                             : Outcome::BadContent;
}

// Nothing reached the driver, which then sees no reply; a frame of the station that the line
// layer set aside says more: a broken reply or one of a wrong size.
Outcome OutcomeOfStrays(const QList<StrayFrame> &strays) {
    for (const StrayFrame &stray : strays) {
        if (stray.kind == FrameKind::BadEcho) return Outcome::BadEcho;
        if (stray.kind == FrameKind::Garbled || stray.kind == FrameKind::OtherRequest) {
            return Outcome::BadContent;
        }
        if (stray.kind == FrameKind::WrongLength) return Outcome::WrongLength;
    }
    return Outcome::NoReply;
}

int HexByteAt(const QByteArray &frame, int position) {
    if (frame.size() < position + 2) return -1;
    bool ok = false;
    const int value = frame.mid(position, 2).toInt(&ok, 16);
    return ok ? value : -1;
}

double Milliseconds(qint64 nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e6;
}

qint64 AtRank(const std::vector<qint64> &sorted, double fraction) {
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::max<size_t>(rank, 1) - 1];
}

QString Ms(double milliseconds) {
    return QString::number(milliseconds, 'f', 2);
}

const Outcome kFailures[] = {Outcome::NoReply, Outcome::BadContent, Outcome::WrongLength,
                             Outcome::Exception, Outcome::BadEcho};

}  // namespace

const char *OutcomeName(Outcome outcome) {
    switch (outcome) {
        case Outcome::Accepted:
            return "accepted";
        case Outcome::NoReply:
            return "noReply";
        case Outcome::BadContent:
            return "badContent";
        case Outcome::WrongLength:
            return "wrongLength";
        case Outcome::Exception:
            return "exception";
        case Outcome::BadEcho:
            return "badEcho";
    }
    return "unknown";
}

Outcome ClassifyTransaction(int result, const Exchange &exchange) {
    if (result == 1) return Outcome::Accepted;
    if (exchange.reply.isEmpty()) return OutcomeOfStrays(exchange.strays);
    if (exchange.replyKind == FrameKind::Exception) return Outcome::Exception;
    return OutcomeOfRejectedReply(result);
}

int StationOfFrame(const QByteArray &frame) {
    return HexByteAt(frame, 1);
}

int FunctionOfFrame(const QByteArray &frame) {
    return HexByteAt(frame, 3);
}

ResponseFigures FiguresOfResponses(std::vector<qint64> nanoseconds) {
    ResponseFigures figures;
    if (nanoseconds.empty()) return figures;
    std::sort(nanoseconds.begin(), nanoseconds.end());
    figures.samples = static_cast<qint64>(nanoseconds.size());
    figures.minMs = Milliseconds(nanoseconds.front());
    figures.medianMs = Milliseconds(AtRank(nanoseconds, 0.5));
    figures.p95Ms = Milliseconds(AtRank(nanoseconds, 0.95));
    figures.maxMs = Milliseconds(nanoseconds.back());
    return figures;
}

void ResponseSamples::add(qint64 nanoseconds) {
    min_ = count_ == 0 ? nanoseconds : std::min(min_, nanoseconds);
    max_ = count_ == 0 ? nanoseconds : std::max(max_, nanoseconds);
    ++count_;
    if (kept_.size() < kKept) {
        kept_.push_back(nanoseconds);
        return;
    }
    kept_[next_] = nanoseconds;
    next_ = (next_ + 1) % kKept;
}

ResponseFigures ResponseSamples::figures() const {
    ResponseFigures figures = FiguresOfResponses(kept_);
    figures.samples = count_;
    if (count_ > 0) {
        figures.minMs = Milliseconds(min_);
        figures.maxMs = Milliseconds(max_);
    }
    return figures;
}

void LineHealth::record(const QByteArray &frame, int result, const Exchange &exchange) {
    StationHealth &station = stations_[StationOfFrame(frame)];
    ++station.transactions;
    ++station.outcomes[static_cast<int>(ClassifyTransaction(result, exchange))];
    for (const StrayFrame &stray : exchange.strays) {
        if (stray.kind != FrameKind::Echo) ++station.strayFrames;
    }
    if (!exchange.reply.isEmpty()) station.responses.add(exchange.responseNanoseconds);
}

QJsonArray HealthJson(const LineHealth &health) {
    QJsonArray stations;
    for (auto it = health.stations().cbegin(); it != health.stations().cend(); ++it) {
        const StationHealth &station = it.value();
        QJsonObject failures{{"strayFrames", station.strayFrames}};
        for (Outcome kind : kFailures) {
            failures.insert(QLatin1String(OutcomeName(kind)), station.count(kind));
        }
        const ResponseFigures figures = station.responses.figures();
        const QJsonObject response{{"samples", figures.samples},
                                   {"min", figures.minMs},
                                   {"median", figures.medianMs},
                                   {"p95", figures.p95Ms},
                                   {"max", figures.maxMs}};
        QJsonObject object{{"station", it.key()},
                           {"transactions", station.transactions},
                           {"accepted", station.count(Outcome::Accepted)},
                           {"failures", failures},
                           {"responseMs", response}};
        if (!station.standing.isEmpty())
            object.insert(QStringLiteral("standing"), station.standing);
        stations.append(object);
    }
    return stations;
}

QStringList HealthTable(const LineHealth &health) {
    QStringList lines{
        QStringLiteral("station transactions accepted no-reply bad-content "
                       "wrong-length exception bad-echo stray | response ms: min "
                       "median p95 max")};
    for (auto it = health.stations().cbegin(); it != health.stations().cend(); ++it) {
        const StationHealth &station = it.value();
        const ResponseFigures figures = station.responses.figures();
        const QList<QPair<qint64, int>> counts = {{it.key(), 7},
                                                  {station.transactions, 12},
                                                  {station.count(Outcome::Accepted), 8},
                                                  {station.count(Outcome::NoReply), 8},
                                                  {station.count(Outcome::BadContent), 11},
                                                  {station.count(Outcome::WrongLength), 12},
                                                  {station.count(Outcome::Exception), 9},
                                                  {station.count(Outcome::BadEcho), 8},
                                                  {station.strayFrames, 5}};
        QStringList cells;
        for (const auto &[value, width] : counts)
            cells.append(QString::number(value).rightJustified(width));
        QString line = cells.join(QLatin1Char(' ')) + QStringLiteral(" |");
        if (figures.samples == 0) {
            line += QStringLiteral(" (no reply)");
        } else {
            for (double ms : {figures.minMs, figures.medianMs, figures.p95Ms, figures.maxMs}) {
                line += QLatin1Char(' ') + Ms(ms);
            }
        }
        lines.append(line);
    }
    return lines;
}

QString HealthLine(int station, const StationHealth &health) {
    QStringList failures;
    for (Outcome kind : kFailures) {
        if (health.count(kind) > 0) {
            failures.append(QStringLiteral("%1 %2")
                                .arg(QLatin1String(OutcomeName(kind)))
                                .arg(health.count(kind)));
        }
    }
    if (health.strayFrames > 0)
        failures.append(QStringLiteral("strayFrames %1").arg(health.strayFrames));
    const ResponseFigures figures = health.responses.figures();
    QString line = QStringLiteral("station %1: %2/%3 accepted")
                       .arg(station)
                       .arg(health.count(Outcome::Accepted))
                       .arg(health.transactions);
    if (!health.standing.isEmpty()) line += QStringLiteral(" (%1)").arg(health.standing);
    if (!failures.isEmpty()) line += QStringLiteral(", ") + failures.join(QStringLiteral(", "));
    if (figures.samples > 0) {
        line +=
            QStringLiteral("; response ms min %1 median %2 p95 %3 max %4")
                .arg(Ms(figures.minMs), Ms(figures.medianMs), Ms(figures.p95Ms), Ms(figures.maxMs));
    }
    return line;
}
