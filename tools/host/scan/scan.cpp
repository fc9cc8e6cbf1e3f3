// SPDX-License-Identifier: MIT
// Probing a range of stations through the driver's one-shot reads, and printing what each
// station did.
#include "scan.h"

#include <unistd.h>

#include <QJsonDocument>
#include <QMap>
#include <QStringList>
#include <cstdio>

#include "line_trace.h"
#include "poll_loop.h"
#include "run_log.h"
#include "tool_error.h"
#include "variables.h"
#include "watch_view.h"

namespace {

constexpr int kFirstStation = 1;
constexpr int kLastStation = 247;
constexpr int kProgressBarWidth = 30;

const char *StatusName(ProbeStatus status) {
    switch (status) {
        case ProbeStatus::Answered:
            return "answered";
        case ProbeStatus::Exception:
            return "exception";
        case ProbeStatus::Silent:
            return "silent";
    }
    return "unknown";
}

void PrintLine(const QString &line) {
    std::fputs(line.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// A bar on standard error while the scan runs, only when a person watches it there.
class ScanProgress {
public:
    explicit ScanProgress(int total) : total_(total), shown_(isatty(STDERR_FILENO) == 1) {}

    void update(int done, int station) const {
        if (!shown_) return;
        const int filled = done * kProgressBarWidth / total_;
        const QString bar = QString(filled, QLatin1Char('#')) +
                            QString(kProgressBarWidth - filled, QLatin1Char('.'));
        std::fprintf(stderr, "\rscanning [%s] %d/%d, station %d", bar.toLatin1().constData(), done,
                     total_, station);
        std::fflush(stderr);
    }

    void finish() const {
        if (shown_) std::fputs("\r\x1b[K", stderr);
    }

private:
    int total_;
    bool shown_;
};

std::set<Owner> QueueProbes(const DriverApi &api, const Variable &probe, StationRange range) {
    std::set<Owner> awaited;
    for (int station = range.first; station <= range.last; ++station) {
        RW_VAR request;
        request.ownerType = 0;
        request.ownerId = station;
        request.area = probe.area;
        request.address = probe.address;
        request.count = probe.length;
        request.station = station;
        if (api.addListOnceReadVar(&request) == 0) {
            throw ToolError(
                QStringLiteral("the driver refused the probe of station %1").arg(station));
        }
        awaited.insert({0, station});
    }
    return awaited;
}

void FillValues(const DriverApi &api, Variable probe, QMap<int, ProbeResult> &results) {
    for (ProbeResult &result : results) {
        if (result.status != ProbeStatus::Answered) continue;
        probe.station = result.station;
        const QList<quint32> values = CurrentValues(api, probe);
        if (!values.isEmpty()) result.value = values.first();
    }
}

// "2-3, 5, 7-247"
QString StationRanges(const QList<int> &stations) {
    QStringList parts;
    for (int i = 0; i < stations.size();) {
        int j = i;
        while (j + 1 < stations.size() && stations[j + 1] == stations[j] + 1) ++j;
        parts.append(i == j ? QString::number(stations[i])
                            : QStringLiteral("%1-%2").arg(stations[i]).arg(stations[j]));
        i = j + 1;
    }
    return parts.join(QStringLiteral(", "));
}

QString StatusText(const ProbeResult &probe) {
    QString text = QLatin1String(StatusName(probe.status));
    if (probe.status == ProbeStatus::Silent && probe.outcome != Outcome::NoReply) {
        text += QStringLiteral(" (%1)").arg(QLatin1String(OutcomeName(probe.outcome)));
    }
    return text;
}

void PrintTable(const QMap<int, ProbeResult> &results, ValueKind kind) {
    PrintLine(QStringLiteral("station status                 value            code response ms"));
    QList<int> silent;
    int answered = 0;
    int exceptions = 0;
    for (const ProbeResult &probe : results) {
        if (probe.status == ProbeStatus::Silent && probe.outcome == Outcome::NoReply) {
            silent.append(probe.station);
            continue;
        }
        answered += probe.status == ProbeStatus::Answered ? 1 : 0;
        exceptions += probe.status == ProbeStatus::Exception ? 1 : 0;
        const QString value = probe.value ? ValueText(kind, *probe.value) : QString();
        const QString code = probe.code ? QString::number(*probe.code) : QString();
        const QString response =
            probe.responseMs ? QString::number(*probe.responseMs, 'f', 2) : QStringLiteral("-");
        PrintLine(QStringLiteral("%1 %2 %3 %4 %5")
                      .arg(QString::number(probe.station).rightJustified(7))
                      .arg(StatusText(probe).leftJustified(22))
                      .arg(value.leftJustified(16))
                      .arg(code.rightJustified(4))
                      .arg(response.rightJustified(11)));
    }
    if (!silent.isEmpty()) PrintLine(QStringLiteral("silent: ") + StationRanges(silent));
    PrintLine(QStringLiteral("%1 of %2 stations answered, %3 with an exception")
                  .arg(answered)
                  .arg(results.size())
                  .arg(exceptions));
}

// Runs the probes through the poll loop; the last transaction of each station decides.
QMap<int, ProbeResult> ProbeStations(const DriverApi &api, ComInfo &comInfo,
                                     const HostOptions &options, const Variable &probe,
                                     StationRange range, const LinkOpener &openLink) {
    const std::unique_ptr<SerialLink> link = openLink();
    RunLog log(options.logFile);
    std::set<Owner> awaited = QueueProbes(api, probe, range);
    const ScanProgress progress(range.last - range.first + 1);
    QMap<int, ProbeResult> results;
    LineTrace lineTrace;
    LoopSettings settings = LoopSettingsOf(options);
    settings.observer = &lineTrace;
    settings.onTransaction = [&](const QByteArray &frame, int result, const Exchange &exchange) {
        log.transaction(frame, result, exchange);
        if (result == 0) return;  // sent again: not the station's last word
        const int station = StationOfFrame(frame);
        results.insert(station, ProbeResultOf(station, result, exchange));
        progress.update(results.size(), station);
    };
    WriteQueue noWrites({}, 1);
    PollLoop loop(api, comInfo, *link, RunLimits{}, noWrites, settings);
    loop.run(std::move(awaited), [](int) {});
    progress.finish();
    return results;
}

void PrintResults(const QMap<int, ProbeResult> &results, OutputFormat format, ValueKind kind) {
    if (format == OutputFormat::Table) {
        PrintTable(results, kind);
        return;
    }
    for (const ProbeResult &result : results) {
        PrintLine(
            QString::fromUtf8(QJsonDocument(ProbeJson(result)).toJson(QJsonDocument::Compact)));
    }
}

}  // namespace

StationRange ParseStationRange(const QString &text) {
    const QStringList bounds = text.split(QLatin1Char('-'));
    if (bounds.size() != 2) {
        throw ToolError(QStringLiteral("--scan: '%1' is not FIRST-LAST").arg(text));
    }
    const QString what = QStringLiteral("--scan: station");
    StationRange range;
    range.first = WholeNumber(bounds[0], what, kFirstStation, kLastStation);
    range.last = WholeNumber(bounds[1], what, range.first, kLastStation);
    return range;
}

int ExceptionCodeOf(const QByteArray &reply) {
    bool ok = false;
    const int code = reply.mid(5, 2).toInt(&ok, 16);
    return ok ? code : -1;
}

ProbeResult ProbeResultOf(int station, int result, const Exchange &exchange) {
    ProbeResult probe;
    probe.station = station;
    probe.outcome = ClassifyTransaction(result, exchange);
    if (probe.outcome == Outcome::Accepted) {
        probe.status = ProbeStatus::Answered;
    } else if (probe.outcome == Outcome::Exception) {
        probe.status = ProbeStatus::Exception;
        probe.code = ExceptionCodeOf(exchange.reply);
    }
    if (!exchange.reply.isEmpty()) {
        probe.responseMs = static_cast<double>(exchange.responseNanoseconds) / 1e6;
    }
    return probe;
}

QJsonObject ProbeJson(const ProbeResult &probe) {
    QJsonObject object{
        {"station", probe.station},
        {"status", StatusName(probe.status)},
        {"response_ms", probe.responseMs ? QJsonValue(*probe.responseMs) : QJsonValue()}};
    if (probe.value) object.insert(QStringLiteral("value"), static_cast<double>(*probe.value));
    if (probe.code) object.insert(QStringLiteral("code"), *probe.code);
    if (probe.status == ProbeStatus::Silent && probe.outcome != Outcome::NoReply) {
        object.insert(QStringLiteral("outcome"), QLatin1String(OutcomeName(probe.outcome)));
    }
    return object;
}

int RunScan(const DriverApi &api, ComInfo &comInfo, const HostOptions &options,
            const LinkOpener &openLink) {
    if (!options.tagFile.isEmpty() || !options.tags.isEmpty() || !options.writes.isEmpty() ||
        !options.onceReads.isEmpty()) {
        throw ToolError(
            QStringLiteral("--scan reads --scan-tag from each station: it takes no --tags, --tag, "
                           "--write or --once"));
    }
    const StationRange range = ParseStationRange(options.scanRange);
    const Variable probe = VariableParser(api, options)
                               .parseVariableOption(options.scanTag, QStringLiteral("scan-tag"));
    QMap<int, ProbeResult> results = ProbeStations(api, comInfo, options, probe, range, openLink);
    FillValues(api, probe, results);
    PrintResults(results, options.format, KindOfArea(probe.area));
    for (const ProbeResult &result : results) {
        if (result.status == ProbeStatus::Answered) return kExitCompleted;
    }
    return kExitAbandoned;
}
