// SPDX-License-Identifier: MIT
#include "host_options.h"

#include <QCommandLineParser>
#include <algorithm>
#include <cmath>
#include <limits>

#include "config_file.h"
#include "link_address.h"
#include "option_table.h"
#include "tool_error.h"

namespace {

// Options that name the variables: given on the command line, all of the file's give way.
const QStringList kVariableOptions = {"tags", "tag"};

// The option's value as a whole number within [minimum, maximum].
int IntValue(const QCommandLineParser &parser, const QString &name, int minimum,
             int maximum = std::numeric_limits<int>::max()) {
    return WholeNumber(parser.value(name), QStringLiteral("--%1:").arg(name), minimum, maximum);
}

// Sets target from the option when it was given.
void ReadInt(const QCommandLineParser &parser, const QString &name, int &target, int minimum,
             int maximum = std::numeric_limits<int>::max()) {
    if (parser.isSet(name)) target = IntValue(parser, name, minimum, maximum);
}

// The option's value, which must be one of choices; returns its index there.
int ChoiceValue(const QCommandLineParser &parser, const QString &name, const QStringList &choices) {
    const int index = choices.indexOf(parser.value(name));
    if (index < 0) {
        throw ToolError(QStringLiteral("--%1: '%2' is not one of %3")
                            .arg(name, parser.value(name), choices.join(QStringLiteral(", "))));
    }
    return index;
}

// A delay longer than a second is a mistake, not a transceiver.
constexpr int kMaxRtsDelayMs = 1000;
// A link slower than a minute each way is no link to poll through.
constexpr int kMaxLinkLatencyMs = 60000;

void ReadRs485Settings(const QCommandLineParser &parser, Rs485Settings &rs485) {
    rs485.enabled = parser.isSet(QStringLiteral("rs485"));
    if (parser.isSet(QStringLiteral("rts-on-send"))) {
        rs485.rtsHighOnSend =
            ChoiceValue(parser, QStringLiteral("rts-on-send"), {"high", "low"}) == 0;
    }
    ReadInt(parser, QStringLiteral("rts-delay-before-ms"), rs485.delayBeforeMs, 0, kMaxRtsDelayMs);
    ReadInt(parser, QStringLiteral("rts-delay-after-ms"), rs485.delayAfterMs, 0, kMaxRtsDelayMs);
}

// A device server on the network delays the line by default; the kernel's RS-485 mode belongs
// to a serial port of this machine, not to a line that a device server drives.
void ReadLinkSettings(const QCommandLineParser &parser, SerialSettings &serial) {
    const bool network = !serial.device.isEmpty() && IsNetworkLink(ParseLinkAddress(serial.device));
    serial.linkLatencyMs = network ? kNetworkLinkLatencyMs : 0;
    ReadInt(parser, QStringLiteral("link-latency-ms"), serial.linkLatencyMs, 0, kMaxLinkLatencyMs);
    if (network && serial.rs485.enabled) {
        throw ToolError(
            QStringLiteral("--rs485 needs a serial port of this machine; the device "
                           "server on --port drives its own line"));
    }
}

SerialSettings ReadSerialSettings(const QCommandLineParser &parser) {
    SerialSettings serial;
    serial.device = parser.value(QStringLiteral("port"));
    ReadInt(parser, QStringLiteral("baud"), serial.baudRate, 1);
    ReadInt(parser, QStringLiteral("data-bits"), serial.dataBits, 7, 8);
    if (parser.isSet(QStringLiteral("parity"))) {
        const char parities[] = {'N', 'E', 'O'};
        serial.parity =
            parities[ChoiceValue(parser, QStringLiteral("parity"), {"none", "even", "odd"})];
    }
    ReadInt(parser, QStringLiteral("stop-bits"), serial.stopBits, 1, 2);
    ReadInt(parser, QStringLiteral("timeout-ms"), serial.replyTimeoutMs, 1);
    ReadInt(parser, QStringLiteral("char-timeout-ms"), serial.charTimeoutMs, 1);
    ReadInt(parser, QStringLiteral("turnaround-ms"), serial.turnaroundMs, 0);
    ReadInt(parser, QStringLiteral("quiet-ms"), serial.quietMs, 1);
    ReadRs485Settings(parser, serial.rs485);
    ReadLinkSettings(parser, serial);
    if (parser.isSet(QStringLiteral("echo"))) {
        const EchoMode modes[] = {EchoMode::Auto, EchoMode::On, EchoMode::Off};
        serial.echo = modes[ChoiceValue(parser, QStringLiteral("echo"), {"auto", "on", "off"})];
    }
    return serial;
}

void ReadDriverSettings(const QCommandLineParser &parser, HostOptions &options) {
    ReadInt(parser, QStringLiteral("station"), options.station, 0, 255);
    options.multiStation = parser.isSet(QStringLiteral("multi-station"));
    // The driver divides by this number when it splits requests; 0 is refused here.
    if (parser.isSet(QStringLiteral("max-frame-words"))) {
        const QString text = parser.value(QStringLiteral("max-frame-words"));
        options.maxFrameWords = WholeNumber(text, QStringLiteral("--max-frame-words:"), 1,
                                            std::numeric_limits<int>::max());
        if (options.maxFrameWords > kMaxReadRegisters) {
            throw ToolError(QStringLiteral("--max-frame-words: %1 breaks the Modbus limit of %2 "
                                           "registers in one read (functions 3 and 4)")
                                .arg(text)
                                .arg(kMaxReadRegisters));
        }
    }
    ReadInt(parser, QStringLiteral("retries"), options.retries, 0);
    ReadInt(parser, QStringLiteral("demote-after"), options.demoteAfter, 1, 1000000);
    ReadInt(parser, QStringLiteral("demote-ms"), options.demoteMs, 1, 86400000);
    ReadInt(parser, QStringLiteral("reopen-ms"), options.reopenMs, 1, 3600000);
    ReadInt(parser, QStringLiteral("max-age-ms"), options.maxAgeMs, 1);
    options.waitForPort = parser.isSet(QStringLiteral("wait-for-port"));
    options.sharedRetries = parser.isSet(QStringLiteral("shared-retries"));
    ReadInt(parser, QStringLiteral("device-id"), options.deviceId, std::numeric_limits<int>::min());
}

void ReadVariables(const QCommandLineParser &parser, HostOptions &options) {
    options.tagFile = parser.value(QStringLiteral("tags"));
    options.tags = parser.values(QStringLiteral("tag"));
    options.writes = parser.values(QStringLiteral("write"));
    options.onceReads = parser.values(QStringLiteral("once"));
    if (parser.isSet(QStringLiteral("lang"))) {
        // The driver's flag: 0 selects Chinese, 1 English.
        options.language = ChoiceValue(parser, QStringLiteral("lang"), {"zh", "en"});
    }
}

void ReadRunSettings(const QCommandLineParser &parser, HostOptions &options) {
    options.plan = parser.isSet(QStringLiteral("plan"));
    options.version = parser.isSet(QStringLiteral("version"));
    if (parser.isSet(QStringLiteral("cycles"))) {
        options.cycles = IntValue(parser, QStringLiteral("cycles"), 1);
    }
    if (parser.isSet(QStringLiteral("duration"))) {
        bool ok = false;
        const double seconds = parser.value(QStringLiteral("duration")).toDouble(&ok);
        if (!ok || !std::isfinite(seconds) || seconds <= 0) {
            throw ToolError(QStringLiteral("--duration: '%1' is not a positive number of seconds")
                                .arg(parser.value(QStringLiteral("duration"))));
        }
        options.durationSeconds = seconds;
    }
    options.onceTable = parser.isSet(QStringLiteral("once-table"));
    if (parser.isSet(QStringLiteral("format"))) {
        options.format = ChoiceValue(parser, QStringLiteral("format"), {"table", "json"}) == 0
                             ? OutputFormat::Table
                             : OutputFormat::Json;
    }
    options.trace = parser.isSet(QStringLiteral("trace"));
    options.verbose = parser.isSet(QStringLiteral("verbose"));
    options.watch = parser.isSet(QStringLiteral("watch"));
    options.logFile = parser.value(QStringLiteral("log"));
}

// A scan addresses each station itself and, unless told otherwise, asks each one once.
void ReadScanSettings(const QCommandLineParser &parser, HostOptions &options) {
    options.scanRange = parser.value(QStringLiteral("scan"));
    if (parser.isSet(QStringLiteral("scan-tag"))) {
        options.scanTag = parser.value(QStringLiteral("scan-tag"));
    }
    if (options.scanRange.isEmpty()) return;
    options.multiStation = true;
    if (!parser.isSet(QStringLiteral("retries"))) options.retries = 0;
}

// The live page belongs to a polling run, not to --plan or --scan.
void ReadServeSettings(const QCommandLineParser &parser, HostOptions &options) {
    const bool tokenGiven = parser.isSet(QStringLiteral("serve-token"));
    if (!parser.isSet(QStringLiteral("serve"))) {
        if (tokenGiven) throw ToolError(QStringLiteral("--serve-token needs --serve"));
        return;
    }
    if (options.plan || !options.scanRange.isEmpty()) {
        throw ToolError(QStringLiteral("--serve shows a polling run; not with --plan or --scan"));
    }
    options.serve = ParseServeSettings(
        parser.value(QStringLiteral("serve")),
        tokenGiven ? std::optional<QString>(parser.value(QStringLiteral("serve-token")))
                   : std::nullopt);
}

// Whether the command line's own value of the file's key replaces the file's.
bool OverriddenByCommandLine(const QCommandLineParser &given, const QString &key) {
    if (kVariableOptions.contains(key)) {
        return std::any_of(kVariableOptions.begin(), kVariableOptions.end(),
                           [&](const QString &option) { return given.isSet(option); });
    }
    return given.isSet(key);
}

HostOptions ReadOptions(const QCommandLineParser &parser, const QString &defaultLibrary,
                        HostOptions options) {
    options.libraryPath = parser.isSet(QStringLiteral("library"))
                              ? parser.value(QStringLiteral("library"))
                              : defaultLibrary;
    options.serial = ReadSerialSettings(parser);
    ReadDriverSettings(parser, options);
    ReadVariables(parser, options);
    ReadRunSettings(parser, options);
    ReadScanSettings(parser, options);
    ReadServeSettings(parser, options);
    if (!options.plan && !options.version && options.serial.device.isEmpty()) {
        throw ToolError(QStringLiteral("--port is required (or --plan, or --version)"));
    }
    return options;
}

}  // namespace

QString WithConfigOrigin(const HostOptions &options, const QString &message) {
    return WithOriginInFile(options.fromConfig, message);
}

HostOptions ParseOptions(const QStringList &arguments, const QString &defaultLibrary) {
    QCommandLineParser given;
    const QCommandLineOption help = given.addHelpOption();
    WithOptions(given);
    if (!given.parse(arguments)) throw ToolError(given.errorText());
    if (given.isSet(help)) given.showHelp(kExitCompleted);
    if (!given.positionalArguments().isEmpty()) {
        throw ToolError(
            QStringLiteral("unexpected argument '%1'").arg(given.positionalArguments().first()));
    }
    HostOptions options;
    QCommandLineParser parser;
    WithOptions(parser);
    if (given.isSet(QStringLiteral("config"))) {
        const ConfigFile config =
            ReadConfigFile(given.value(QStringLiteral("config")), ShapeOfOption);
        const auto overridden = [&given](const QString &key) {
            return OverriddenByCommandLine(given, key);
        };
        options.fromConfig = OriginsInFile(config, overridden);
        if (!OverriddenByCommandLine(given, QStringLiteral("tags"))) {
            options.inlineTags = config.tags;
        }
        if (!parser.parse(MergedArguments(arguments, config, overridden))) {
            throw ToolError(parser.errorText());
        }
    } else if (!parser.parse(arguments)) {
        throw ToolError(parser.errorText());
    }
    if (given.isSet(QStringLiteral("print-config"))) {
        options.printConfig =
            ConfigText(SettingsInEffect(parser), options.inlineTags, ShapeOfOption);
        return options;
    }
    try {
        return ReadOptions(parser, defaultLibrary, options);
    } catch (const ToolError &error) {
        throw ToolError(WithConfigOrigin(options, error.message()));
    }
}
