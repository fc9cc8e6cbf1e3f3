// SPDX-License-Identifier: MIT
// modbus-ascii-host: a command-line host for the Modbus ASCII master driver. It loads the
// driver library the way an HMI runtime does, owns the serial line and the polling loop, and
// prints what the driver reads.
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <optional>

#include "driver_api.h"
#include "host_options.h"
#include "poll_loop.h"
#include "report.h"
#include "run_log.h"
#include "scan.h"
#include "serial_link.h"
#include "tool_error.h"
#include "variables.h"
#include "watch_view.h"
#include "write_queue.h"

namespace {

const QString kLibraryFile = QStringLiteral("libModbus_ASCII_Master.so.1");

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

// Each one-shot read gets its own owner (0, n), so that each is reported by a completion.
void QueueOnceReads(const DriverApi &api, const QList<Variable> &onceReads,
                    std::set<Owner> &awaited) {
    for (int i = 0; i < onceReads.size(); ++i) {
        RW_VAR request;
        request.ownerType = 0;
        request.ownerId = i + 1;
        request.area = onceReads[i].area;
        request.address = onceReads[i].address;
        request.count = onceReads[i].length;
        request.station = onceReads[i].station;
        if (api.addListOnceReadVar(&request) == 0) {
            throw ToolError(
                QStringLiteral("the driver refused --once '%1'").arg(onceReads[i].name));
        }
        awaited.insert({0, i + 1});
    }
}

QList<VariableValues> CurrentRows(const DriverApi &api, const HostVariables &variables,
                                  const ValueFreshness &freshness) {
    QList<VariableValues> rows;
    for (const Variable &variable : variables.polled + variables.onceReads) {
        rows.append({variable, CurrentValues(api, variable), freshness.confirmed(variable)});
    }
    return rows;
}

int Poll(const DriverApi &api, ComInfo &comInfo, const HostOptions &options,
         const HostVariables &variables, int readRequests) {
    SerialLink link(options.serial);
    std::set<Owner> awaited;
    WriteQueue writes(variables.writes, std::min(options.maxFrameWords, kMaxWriteRegisters));
    QueueOnceReads(api, variables.onceReads, awaited);

    const Reporter reporter(options.format);
    const RunLimits limits{options.cycles, options.durationSeconds, readRequests};
    RunLog log(options.logFile);
    LoopSettings settings{options.trace, options.verbose, options.sharedRetries, {}};
    settings.onTransaction = [&](const QByteArray &frame, int result, const Exchange &exchange) {
        log.transaction(frame, result, exchange);
    };
    PollLoop loop(api, comInfo, link, limits, writes, settings);
    std::optional<WatchView> watch;
    if (WatchView::wanted(options)) watch.emplace();
    InstallStopHandlers();
    loop.run(std::move(awaited), [&](int pass) {
        const QList<VariableValues> rows = CurrentRows(api, variables, loop.freshness());
        log.pass(pass, rows);
        if (watch) {
            watch->draw(pass, rows, loop.stats().health);
        } else if (!options.onceTable) {
            reporter.values(pass, false, rows);
        }
    });
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
    const DriverApi api = LoadDriver(options.libraryPath);
    const HostVariables variables = ParseVariables(VariableParser(api, options), options);

    // The runtime's start-up: settings, the (unused) local register values, the callback.
    ComInfo comInfo = MakeComInfo(options);
    api.setComInfo(&comInfo);
    api.flashLocalRegister(0, 0, 0);
    api.registCallBackFuncIntf(RecordCompletion, 0);
    if (!options.scanRange.isEmpty()) return RunScan(api, comInfo, options);
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
        std::fprintf(stderr, "modbus-ascii-host: %s\n", error.message().toUtf8().constData());
        return kExitUsage;
    }
}
