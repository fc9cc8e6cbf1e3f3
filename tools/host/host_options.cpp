// SPDX-License-Identifier: MIT
#include "host_options.h"

#include <QCommandLineParser>
#include <algorithm>
#include <cmath>
#include <limits>

#include "config_file.h"
#include "link_address.h"
#include "tool_error.h"

namespace {

const QString kDescription = QStringLiteral(
    "Polls Modbus ASCII slaves through the Modbus ASCII master driver, loaded the way an HMI\n"
    "runtime loads it, and prints the values it reads.\n"
    "\n"
    "Variables: --tags FILE (CSV with the header name,station,area,address,length) and\n"
    "--tag AREA:ADDRESS[:LENGTH[:STATION]]. Areas: 0x 1x 3x 4x 3x_bit 4x_bit 3x_double\n"
    "4x_double. Addresses are the driver's: a plain coil or register number (40001 is\n"
    "register 40001), REGISTER.BIT for the _bit areas. LENGTH counts coils, registers (two\n"
    "per 32-bit value) or bits.\n"
    "Writes: --write AREA:ADDRESS[:STATION]=VALUE[,VALUE...]; one-shot reads:\n"
    "--once AREA:ADDRESS[:LENGTH[:STATION]].\n"
    "Every write ends done, failed or unconfirmed (sent, not acknowledged); broadcasts as sent.\n"
    "Exit status: 0 completed, 1 requests abandoned or writes failed or unconfirmed, 2 bad\n"
    "input, usage or port error.");

struct OptionDefinition {
    const char *name;
    const char *description;
    const char *valueName;  // nullptr for a flag
};

const OptionDefinition kOptions[] = {
    {"library", "Driver library to load (default: the one beside this program).", "path"},
    {"port",
     "Serial device, e.g. /dev/ttyS1; or a serial device server: tcp://HOST:PORT (a raw "
     "stream) or rfc2217://HOST:PORT (Telnet; the line settings are sent to it).",
     "device"},
    {"baud", "Baud rate (default 9600).", "rate"},
    {"data-bits", "Data bits, 7 or 8 (default 7).", "bits"},
    {"parity", "none, even or odd (default even).", "parity"},
    {"stop-bits", "1 or 2 (default 1).", "bits"},
    {"station", "Station of every request in single-station mode (default 1).", "n"},
    {"multi-station", "Each variable names its own station.", nullptr},
    {"max-frame-words",
     "Most registers in one request, 1 to 125 (default 125); writes of several registers "
     "take at most 123 whatever this says.",
     "n"},
    {"retries", "Failed replies tolerated for each request before it is abandoned (default 3).",
     "n"},
    {"shared-retries",
     "Count failed replies across requests, as the driver does on its own: a request may then "
     "be abandoned at its first failure.",
     nullptr},
    {"timeout-ms", "Reply time-out in milliseconds (default 1000).", "ms"},
    {"char-timeout-ms", "Inter-character time-out in milliseconds (default 1000).", "ms"},
    {"turnaround-ms", "Pause after a broadcast in milliseconds (default 100).", "ms"},
    {"quiet-ms",
     "Silence the line must keep after a time-out before the next request is sent, in "
     "milliseconds (default 200).",
     "ms"},
    {"link-latency-ms",
     "Delay of the link to the line, added to the reply time-out and the quiet gap, in "
     "milliseconds (default 0 on a serial port, 20 through a device server).",
     "ms"},
    {"echo", "Local echo of the adapter: auto (found out from the line), on or off (default auto).",
     "mode"},
    {"demote-after",
     "With --multi-station, set a station aside after this many attempts in a row without an "
     "answer (default 3).",
     "n"},
    {"demote-ms",
     "How long a station stays set aside before one request probes it, in milliseconds "
     "(default 10000).",
     "ms"},
    {"reopen-ms",
     "When the serial port goes away, try to reopen it this often, in milliseconds (default "
     "1000).",
     "ms"},
    {"wait-for-port", "Wait for a serial port that cannot be opened at start.", nullptr},
    {"max-age-ms",
     "Show a polled value as not confirmed once its last answer is older than this, in "
     "milliseconds (default: twice the time a pass of the read list takes when every request "
     "uses all its attempts, reply time-out and quiet gap included; at least 1000).",
     "ms"},
    {"rs485", "Put the port in the kernel's RS-485 mode (RTS drives the transceiver).", nullptr},
    {"rts-on-send", "RTS level while sending in RS-485 mode: high or low (default high).", "level"},
    {"rts-delay-before-ms", "RS-485: delay from RTS to the first character, 0 to 1000 ms.", "ms"},
    {"rts-delay-after-ms", "RS-485: delay from the last character to RTS, 0 to 1000 ms.", "ms"},
    {"device-id", "Device number reported with every completion (default 0).", "n"},
    {"tags", "CSV file of variables to poll.", "file"},
    {"tag", "One variable to poll: AREA:ADDRESS[:LENGTH[:STATION]] (repeatable).", "variable"},
    {"lang", "Language of the driver's address messages: en or zh (default en).", "lang"},
    {"plan", "Print the merged read requests and exit.", nullptr},
    {"version",
     "Print the version of this tool, its Qt flavour and the path and version of the driver "
     "library it loads, and exit.",
     nullptr},
    {"write", "Write AREA:ADDRESS[:STATION]=VALUE[,VALUE...] (repeatable).", "assignment"},
    {"once", "One-shot read AREA:ADDRESS[:LENGTH[:STATION]] (repeatable).", "variable"},
    {"cycles", "Stop after this many full passes of the read list.", "n"},
    {"duration", "Stop after this many seconds.", "seconds"},
    {"once-table", "Print the values once, at the end, not after every pass.", nullptr},
    {"format", "table or json (one JSON object per line).", "format"},
    {"trace", "Print every frame sent and received, with the driver's result.", nullptr},
    {"verbose", "Print every completion the driver reports.", nullptr},
    {"scan",
     "Probe stations FIRST-LAST (1 to 247) with a one-register read and print which answer "
     "(implies --multi-station; no retries unless --retries is given).",
     "range"},
    {"scan-tag", "What --scan reads from each station: AREA:ADDRESS (default 4x:0).", "variable"},
    {"watch", "On a terminal, a live table redrawn after every pass, with the line health.",
     nullptr},
    {"log", "Write JSON lines to this file: one per pass and one per transaction.", "file"},
    {"serve",
     "While polling, serve a live page of the values and the line health at [ADDRESS:]PORT "
     "(address 127.0.0.1 when left out); any other address than a loopback one needs a token.",
     "address"},
    {"config",
     "Read the settings from this TOML file: its keys are the long options, with [[tags]] and "
     "[[writes]] tables; the command line overrides it.",
     "file"},
    {"print-config",
     "Print the settings in effect (the file's and the command line's) as TOML, tokens as ***, "
     "and exit.",
     nullptr},
    {"serve-token",
     "The token the page's address must carry (default: none on a loopback address, a random "
     "one printed with the address elsewhere).",
     "token"},
};

// Options that may be given more than once.
const QStringList kListOptions = {"tag", "write", "once"};
// Options that name the variables: given on the command line, all of the file's give way.
const QStringList kVariableOptions = {"tags", "tag"};

void AddOptions(QCommandLineParser &parser) {
    for (const OptionDefinition &option : kOptions) {
        const QString name = QString::fromLatin1(option.name);
        const QString description = QString::fromLatin1(option.description);
        if (option.valueName == nullptr) {
            parser.addOption(QCommandLineOption(name, description));
        } else {
            parser.addOption(
                QCommandLineOption(name, description, QString::fromLatin1(option.valueName)));
        }
    }
}

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

// The settings as given, in the order of --help: each option with its values.
QList<std::pair<QString, QStringList>> SettingsInEffect(const QCommandLineParser &parser) {
    QList<std::pair<QString, QStringList>> settings;
    for (const OptionDefinition &option : kOptions) {
        const QString name = QString::fromLatin1(option.name);
        if (name == QLatin1String("config") || name == QLatin1String("print-config")) continue;
        if (parser.isSet(name)) settings.append({name, parser.values(name)});
    }
    return settings;
}

QCommandLineParser &WithOptions(QCommandLineParser &parser) {
    parser.setApplicationDescription(kDescription);
    AddOptions(parser);
    return parser;
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

OptionShape ShapeOfOption(const QString &name) {
    for (const OptionDefinition &option : kOptions) {
        if (name != QLatin1String(option.name)) continue;
        if (option.valueName == nullptr) return OptionShape::Flag;
        return kListOptions.contains(name) ? OptionShape::List : OptionShape::Value;
    }
    return OptionShape::Unknown;
}

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
