// SPDX-License-Identifier: MIT
// Command-line options of modbus-ascii-host.
#ifndef MODBUS_ASCII_HOST_HOST_OPTIONS_H
#define MODBUS_ASCII_HOST_HOST_OPTIONS_H

#include <QString>
#include <QStringList>
#include <optional>

#include "config_file.h"
#include "option_table.h"
#include "serve_settings.h"
// Whether the adapter sends every request back before the reply (local echo).
enum class EchoMode { Auto, On, Off };

// RS-485 direction control by the kernel (--rs485).
struct Rs485Settings {
    bool enabled = false;
    bool rtsHighOnSend = true;  // RTS level while sending; the other level after it
    int delayBeforeMs = 0;      // from RTS set to the first character
    int delayAfterMs = 0;       // from the last character to RTS released
};

// Line settings. The defaults are those of a Modbus ASCII line: 9600 baud, 7 data bits, even
// parity, 1 stop bit.
struct SerialSettings {
    QString device;  // --port: a serial device, or tcp://HOST:PORT or rfc2217://HOST:PORT
    int baudRate = 9600;
    int dataBits = 7;
    char parity = 'E';  // 'N', 'E' or 'O'
    int stopBits = 1;
    int replyTimeoutMs = 1000;  // from the end of a request to the first character of its reply
    int charTimeoutMs = 1000;   // longest silence between two characters of one reply
    int turnaroundMs = 100;     // pause after a broadcast, which no slave answers
    int quietMs = 200;          // silence the line keeps after a time-out before the next send
    int linkLatencyMs = 0;      // a device server's delay, added to both of those
    EchoMode echo = EchoMode::Auto;
    Rs485Settings rs485;

    // The wait for the first character of a reply, and the quiet gap, with the link's delay:
    // a converter between the tool and the line delays both the request and the reply.
    int replyDeadlineMs() const { return replyTimeoutMs + linkLatencyMs; }
    int quietGapMs() const { return quietMs + linkLatencyMs; }
};

// --link-latency-ms when it is not given: none on a serial port; on a network link the most a
// device server holds the line's characters before it sends them (ser2net waits for a gap of
// two characters, at most 20 ms), which also covers a plant network's round trip at the usual
// baud rates. It only lengthens the waits that end in silence.
constexpr int kNetworkLinkLatencyMs = 20;

// Modbus limits of one frame. Coil and input reads stay below theirs (2000 bits) by
// construction: the driver reads at most eight bits per register of the frame limit.
constexpr int kMaxReadRegisters = 125;   // functions 3 and 4
constexpr int kMaxWriteRegisters = 123;  // function 16

enum class OutputFormat { Table, Json };

struct HostOptions {
    QString libraryPath;
    SerialSettings serial;
    int station = 1;
    bool multiStation = false;
    int maxFrameWords = kMaxReadRegisters;  // reads; writes are cut at kMaxWriteRegisters too
    int retries = 3;
    int demoteAfter = 3;         // silent attempts that set a station aside (with --multi-station)
    int demoteMs = 10000;        // how long it stays aside before a request probes it
    int reopenMs = 1000;         // between attempts to reopen a serial port that went away
    bool waitForPort = false;    // a port that cannot be opened at start is waited for
    int maxAgeMs = 0;            // --max-age-ms; 0: the bound follows from the read list
    bool sharedRetries = false;  // the driver's count across requests instead of one per request
    int deviceId = 0;
    QString tagFile;
    QStringList tags;
    QStringList writes;
    QStringList onceReads;
    int language = 1;  // the driver's language flag: 1 English, 0 Chinese
    bool plan = false;
    bool version = false;  // --version: print the versions and exit
    std::optional<int> cycles;
    std::optional<double> durationSeconds;
    bool onceTable = false;
    OutputFormat format = OutputFormat::Table;
    bool trace = false;
    bool verbose = false;
    QString scanRange;                         // --scan FIRST-LAST; empty: no scan
    QString scanTag = QStringLiteral("4x:0");  // what --scan reads from each station
    bool watch = false;
    QString logFile;
    std::optional<ServeSettings> serve;  // --serve: the live page
    QList<TagRow> inlineTags;            // [[tags]] of --config
    // The settings that come from --config, each with where it stands there ("FILE:LINE").
    QMap<QString, QString> fromConfig;
    std::optional<QString> printConfig;  // --print-config: the settings in effect, as TOML
};

// message with where its setting stands in --config in front, when it begins with the name of
// an option that comes from the file ("tool.toml:4: --baud: ...").
QString WithConfigOrigin(const HostOptions &options, const QString &message);

// Parses the arguments (the program name first). Prints the help and exits for --help;
// throws ToolError for anything it cannot accept. defaultLibrary is used without --library.
HostOptions ParseOptions(const QStringList &arguments, const QString &defaultLibrary);

#endif  // MODBUS_ASCII_HOST_HOST_OPTIONS_H
