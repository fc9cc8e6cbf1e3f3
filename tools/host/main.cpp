// modbus-ascii-host: a command-line host for the Modbus ASCII master driver. It loads the
// driver library the way an HMI runtime does, owns the serial line and the polling loop, and
// prints what the driver reads.
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <cstdio>

#include "driver_api.h"
#include "host_options.h"
#include "poll_loop.h"
#include "report.h"
#include "serial_link.h"
#include "tool_error.h"
#include "variables.h"

namespace {

const QString kLibraryFile = QStringLiteral("libModbus_ASCII_Master.so.1");

// The library beside this program (a build tree), else the one in the library directory of
// the installation this program belongs to, else the SONAME for the dynamic loader to find.
QString DefaultLibraryPath() {
    const QDir programDir(QCoreApplication::applicationDirPath());
    const QString besideProgram = programDir.filePath(kLibraryFile);
    if (QFileInfo::exists(besideProgram)) return besideProgram;
    const QString installed = QDir::cleanPath(
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

// Host writes are queued by SetRegisterData with owner (0, 0): the driver reports them with
// one completion, after the last of them.
void QueueWrites(const DriverApi &api, const QList<WriteRequest> &writes,
                 std::set<Owner> &awaited) {
    for (const WriteRequest &write : writes) {
        if (api.setRegisterData(write.area, write.address, static_cast<unsigned>(write.station),
                                write.value, write.count) == 0) {
            throw ToolError(QStringLiteral("the driver refused --write '%1'").arg(write.text));
        }
        awaited.insert({0, 0});
    }
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

QList<VariableValues> CurrentRows(const DriverApi &api, const HostVariables &variables) {
    QList<VariableValues> rows;
    for (const Variable &variable : variables.polled + variables.onceReads) {
        rows.append({variable, CurrentValues(api, variable)});
    }
    return rows;
}

int Poll(const DriverApi &api, ComInfo &comInfo, const HostOptions &options,
         const HostVariables &variables, int readRequests) {
    SerialLink link(options.serial);
    std::set<Owner> awaited;
    QueueWrites(api, variables.writes, awaited);
    QueueOnceReads(api, variables.onceReads, awaited);

    const Reporter reporter(options.format);
    const RunLimits limits{options.cycles, options.durationSeconds, readRequests};
    PollLoop loop(api, comInfo, link, limits, options.trace, options.verbose);
    InstallStopHandlers();
    loop.run(std::move(awaited), [&](int pass) {
        if (!options.onceTable) reporter.values(pass, false, CurrentRows(api, variables));
    });
    if (options.onceTable || loop.stats().passes == 0) {
        reporter.values(loop.stats().passes, true, CurrentRows(api, variables));
    }
    reporter.summary(loop.stats());
    return loop.stats().abandonedTotal() > 0 ? kExitAbandoned : kExitCompleted;
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
