// SPDX-License-Identifier: MIT
// modbus-ascii-host: a command-line host for the Modbus ASCII master driver. It loads the
// driver library the way an HMI runtime does, owns the serial line and the polling loop, and
// prints what the driver reads.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

#include "driver_api.h"
#include "host_options.h"
#include "journal_line.h"
#include "line_trace.h"
#include "link_address.h"
#include "live_page.h"
#include "once_reads.h"
#include "poll_loop.h"
#include "report.h"
#include "run_log.h"
#include "scan.h"
#include "serial_link.h"
#include "service_notifier.h"
#include "tool_error.h"
#include "variables.h"
#include "version_report.h"
#include "watch_view.h"
#include "write_queue.h"

namespace {

const QString kLibraryFile = QStringLiteral(MODBUS_LIBRARY_SONAME);

// The library beside this program (a build tree), else the one in the library directory of
// the installation this program belongs to, else the SONAME for the dynamic loader to find.
QString DefaultLibraryPath() {
    const QDir programDir(QCoreApplication::applicationDirPath());
    QString besideProgram = programDir.filePath(kLibraryFile);
    if (QFileInfo::exists(besideProgram)) return besideProgram;
    QString installed = QDir::cleanPath(
        programDir.filePath(QStringLiteral(MODBUS_LIBDIR_FROM_BINDIR "/") + kLibraryFile));
    if (QFileInfo::exists(installed)) return installed;
    return kLibraryFile;
}

// The most registers of one write request: --max-frame-words, within function 16's limit.
int WriteRegisterLimit(const HostOptions &options) {
    return std::min(options.maxFrameWords, kMaxWriteRegisters);
}

ComInfo MakeComInfo(const HostOptions &options) {
    ComInfo info;
    info.maxFrameWords = options.maxFrameWords;
    info.defaultStation = options.station;
    info.retryLimit = options.retries;
    info.multiStation = options.multiStation ? 1 : 0;
    info.workMode = 2;  // frames are sent; any other mode writes the cache only
    info.deviceId = options.deviceId;
    return info;
}

// Everything the host has configured: the polled variables and the one-shot reads (both shown
// in the value table) and the writes.
struct HostVariables {
    QList<Variable> polled;
    QList<Variable> onceReads;
    QList<WriteRequest> writes;
};

HostVariables ParseVariables(const VariableParser &parser, const HostOptions &options) {
    HostVariables variables;
    if (!options.tagFile.isEmpty()) variables.polled = parser.readTagFile(options.tagFile);
    for (const TagRow &row : options.inlineTags) variables.polled.append(parser.parseTagRow(row));
    for (const QString &text : options.tags) {
        variables.polled.append(parser.parseVariableOption(text, QStringLiteral("tag")));
    }
    for (const QString &text : options.onceReads) {
        variables.onceReads.append(parser.parseVariableOption(text, QStringLiteral("once")));
    }
    for (const QString &text : options.writes)
        variables.writes.append(parser.parseWriteOption(text));
    return variables;
}

// The variables, writes and one-shot reads, checked; a fault in one that comes from --config
// is named with its place in the file.
HostVariables CheckedVariables(const DriverApi &api, const HostOptions &options) {
    try {
        HostVariables variables = ParseVariables(VariableParser(api, options), options);
        CheckOnceReadsFit(variables.onceReads, options.maxFrameWords);
        CheckWritesFit(variables.writes, WriteRegisterLimit(options));
        return variables;
    } catch (const ToolError &error) {
        throw ToolError(WithConfigOrigin(options, error.message()));
    }
}

// Hands the polled variables to the driver; returns the number of merged read requests.
int HandOverReadList(const DriverApi &api, const QList<Variable> &polled) {
    QList<Keyboard> keyboards;
    for (const Variable &variable : polled) {
        Keyboard keyboard;
        keyboard.keyName = variable.name;
        keyboard.station = static_cast<unsigned char>(variable.station);
        keyboard.area = variable.area;
        keyboard.length = variable.length;
        keyboard.address = variable.address;
        keyboards.append(keyboard);
    }
    return api.reCreatReadVarList(&keyboards);
}

VariableValues RowOf(const DriverApi &api, const Variable &variable,
                     const ValueFreshness &freshness, bool polled) {
    return {variable, CurrentValues(api, variable), freshness.confirmed(variable, polled),
            freshness.ageMs(variable)};
}

QList<VariableValues> CurrentRows(const DriverApi &api, const HostVariables &variables,
                                  const ValueFreshness &freshness) {
    QList<VariableValues> rows;
    for (const Variable &variable : variables.polled) {
        rows.append(RowOf(api, variable, freshness, true));
    }
    for (const Variable &variable : variables.onceReads) {
        rows.append(RowOf(api, variable, freshness, false));
    }
    return rows;
}

// With several stations the read list can leave out the stations set aside.
void AllowSettingStationsAside(const DriverApi &api, const HostOptions &options,
                               const HostVariables &variables, RunLog &log,
                               LoopSettings &settings) {
    if (!options.multiStation) return;
    settings.demotion = {options.demoteAfter, options.demoteMs};
    for (const Variable &variable : variables.polled) {
        const ReadGroup group = GroupOf(variable.station, variable.area);
        if (std::find(settings.polledGroups.begin(), settings.polledGroups.end(), group) ==
            settings.polledGroups.end()) {
            settings.polledGroups.push_back(group);
        }
    }
    settings.rebuildReadList = [&api, &variables](const std::vector<ReadGroup> &groups) {
        QList<Variable> listed;
        for (const ReadGroup &group : groups) {
            for (const Variable &variable : variables.polled) {
                if (GroupOf(variable.station, variable.area) == group) listed.append(variable);
            }
        }
        return HandOverReadList(api, listed);
    };
    settings.onStationStanding = [&log](int station, const QString &standing) {
        PrintEvent(standing.startsWith(QLatin1String("set aside")) ? EventPriority::Warning
                                                                   : EventPriority::Notice,
                   QStringLiteral("station %1 %2").arg(station).arg(standing));
        log.station(station, standing);
    };
}

// Waits milliseconds in short slices, calling whileWaiting after each: a long --reopen-ms must
// not silence the service watchdog's pings.
void WaitWhileTurning(int milliseconds, const std::function<void()> &whileWaiting) {
    constexpr int kSliceMs = 100;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < milliseconds && !StopRequested()) {
        QThread::msleep(static_cast<unsigned long>(
            std::min<qint64>(kSliceMs, milliseconds - waited.elapsed())));
        if (whileWaiting) whileWaiting();
    }
}

// Opens the port or connects to the device server, for a polling run and a scan alike; with
// --wait-for-port one that cannot be opened is tried again every --reopen-ms until it opens or
// a stop signal comes. --verbose then says what line settings are in force.
std::unique_ptr<SerialLink> OpenLink(const HostOptions &options,
                                     const std::function<void()> &whileWaiting) {
    for (bool told = false;; told = true) {
        if (whileWaiting) whileWaiting();
        try {
            auto link = std::make_unique<SerialLink>(options.serial);
            const QString note = link->settingsNote();
            if (options.verbose && !note.isEmpty()) {
                PrintEvent(EventPriority::Info,
                           QStringLiteral("%1: %2").arg(link->portName(), note));
            }
            return link;
        } catch (const ToolError &error) {
            if (!options.waitForPort || StopRequested()) throw;
            if (!told) {
                PrintEvent(EventPriority::Warning,
                           error.message() + QStringLiteral("; waiting for it"));
            }
            WaitWhileTurning(options.reopenMs, whileWaiting);
        }
    }
}

// The pass after which a test makes the poll loop stop turning, as a loop that hangs would
// (MODBUS_HOST_TEST_STALL_AFTER_PASS): the service watchdog's pings must stop with it.
qint64 TestStallAfterPass() {
    bool ok = false;
    const qint64 pass = qEnvironmentVariable("MODBUS_HOST_TEST_STALL_AFTER_PASS").toLongLong(&ok);
    return ok && pass > 0 ? pass : -1;
}

void StallUntilStopped() {
    while (!StopRequested()) QThread::msleep(20);
}

int Poll(const DriverApi &api, ComInfo &comInfo, const HostOptions &options,
         const HostVariables &variables, int readRequests) {
    InstallStopHandlers();
    ServiceNotifier notifier;
    if (options.waitForPort) {
        notifier.ready(QStringLiteral("waiting for %1").arg(options.serial.device));
    }
    const std::unique_ptr<SerialLink> opened = OpenLink(options, [&notifier] { notifier.turn(); });
    SerialLink &link = *opened;
    WriteQueue writes(variables.writes, WriteRegisterLimit(options));
    std::set<Owner> awaited = QueueOnceReads(api, variables.onceReads, options.maxFrameWords);

    const Reporter reporter(options.format, IsNetworkLink(ParseLinkAddress(options.serial.device)));
    const RunLimits limits{options.cycles, options.durationSeconds, readRequests};
    RunLog log(options.logFile);
    std::optional<LivePage> page;
    if (options.serve) page.emplace(*options.serve);
    LineTrace lineTrace;
    LoopSettings settings = LoopSettingsOf(options);
    settings.observer = &lineTrace;
    settings.onTransaction = [&](const QByteArray &frame, int result, const Exchange &exchange) {
        log.transaction(frame, result, exchange);
        if (page) page->transaction(frame, result, exchange);
    };
    AllowSettingStationsAside(api, options, variables, log, settings);
    settings.onPortChange = [&log, &link](const QString &change) {
        PrintEvent(
            change.startsWith(QLatin1String("lost")) ? EventPriority::Error : EventPriority::Notice,
            QStringLiteral("%1 %2").arg(link.portName(), change));
        log.port(change);
    };
    settings.onTurn = [&notifier] { notifier.turn(); };
    const qint64 stallAfterPass = TestStallAfterPass();
    PollLoop loop(api, comInfo, link, limits, writes, settings);
    std::optional<WatchView> watch;
    if (WatchView::wanted(options)) watch.emplace();
    if (page) page->pass(0, CurrentRows(api, variables, loop.freshness()), loop.stats());
    loop.run(std::move(awaited), [&](qint64 pass) {
        if (pass == 1) notifier.ready(RunStatusText(loop.stats()));
        notifier.progress(RunStatusText(loop.stats()));
        if (pass == stallAfterPass) StallUntilStopped();
        const QList<VariableValues> rows = CurrentRows(api, variables, loop.freshness());
        log.pass(pass, rows);
        if (page) page->pass(pass, rows, loop.stats());
        if (watch) {
            watch->draw(pass, rows, loop.stats().health);
        } else if (!options.onceTable) {
            reporter.values(pass, false, rows);
        }
    });
    if (loop.stats().interrupted) notifier.stopping();
    if (page) {
        page->finish(loop.stats().passes, CurrentRows(api, variables, loop.freshness()),
                     loop.stats());
    }
    const bool watched = watch.has_value();
    watch.reset();  // back on the normal screen for the last table and the summary
    if (options.onceTable || watched || loop.stats().passes == 0) {
        reporter.values(loop.stats().passes, true, CurrentRows(api, variables, loop.freshness()));
    }
    const QList<WriteResult> writeResults = writes.results();
    reporter.writes(writeResults);
    reporter.summary(loop.stats(), writeResults);
    const bool writesGood =
        std::all_of(writeResults.begin(), writeResults.end(),
                    [](const WriteResult &r) { return IsWriteOutcomeGood(r.outcome); });
    return loop.stats().abandonedTotal() > 0 || !writesGood ? kExitAbandoned : kExitCompleted;
}

int Run(const QStringList &arguments) {
    const HostOptions options = ParseOptions(arguments, DefaultLibraryPath());
    if (options.printConfig) {
        std::fputs(options.printConfig->toUtf8().constData(), stdout);
        return kExitCompleted;
    }
    const DriverApi api = LoadDriver(options.libraryPath);
    if (options.version) {
        std::fputs(VersionReport(api).toUtf8().constData(), stdout);
        return kExitCompleted;
    }
    const HostVariables variables = CheckedVariables(api, options);

    // The runtime's start-up: settings, the (unused) local register values, the callback.
    ComInfo comInfo = MakeComInfo(options);
    api.setComInfo(&comInfo);
    api.flashLocalRegister(0, 0, 0);
    api.registCallBackFuncIntf(RecordCompletion, 0);
    if (!options.scanRange.isEmpty()) {
        InstallStopHandlers();  // before the link: a wait for the port ends with a stop too
        return RunScan(api, comInfo, options, [&options] { return OpenLink(options, {}); });
    }
    const int readRequests = HandOverReadList(api, variables.polled);
    if (options.plan) {
        Reporter(options.format).plan(api.driver->readList);
        return kExitCompleted;
    }
    return Poll(api, comInfo, options, variables, readRequests);
}

}  // namespace

int main(int argc, char *argv[]) {
    QCoreApplication application(argc, argv);
    try {
        return Run(QCoreApplication::arguments());
    } catch (const ToolError &error) {
        const QString line = StandardErrorGoesToJournal()
                                 ? EventLine(EventPriority::Error, error.message(), true)
                                 : QStringLiteral("modbus-ascii-host: ") + error.message();
        std::fprintf(stderr, "%s\n", line.toUtf8().constData());
        return kExitUsage;
    }
}
