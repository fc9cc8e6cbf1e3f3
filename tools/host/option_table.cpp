// SPDX-License-Identifier: MIT
// The tool's long options: their names, descriptions and value names, as --help lists them,
// and how each takes its value (a flag, a value, a repeatable one).
#include "option_table.h"

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

}  // namespace

QCommandLineParser &WithOptions(QCommandLineParser &parser) {
    parser.setApplicationDescription(kDescription);
    AddOptions(parser);
    return parser;
}

OptionShape ShapeOfOption(const QString &name) {
    for (const OptionDefinition &option : kOptions) {
        if (name != QLatin1String(option.name)) continue;
        if (option.valueName == nullptr) return OptionShape::Flag;
        return kListOptions.contains(name) ? OptionShape::List : OptionShape::Value;
    }
    return OptionShape::Unknown;
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
