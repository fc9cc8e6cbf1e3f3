// SPDX-License-Identifier: MIT
// --config: a TOML file's keys as the long options they name, [[tags]] and [[writes]], the
// command line over the file, --print-config, and every kind of bad file with its message.
#include "config_file.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "host_options.h"
#include "tool_error.h"

namespace {

class ConfigFileTest : public ::testing::Test {
protected:
    // Writes text to NAME in a fresh directory; returns its path.
    QString file(const QString &name, const QByteArray &text) {
        const QString path = directory_.filePath(name);
        QFile out(path);
        EXPECT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(text);
        return path;
    }

    QString messageOfRead(const QString &path) {
        try {
            ReadConfigFile(path, ShapeOfOption);
        } catch (const ToolError &error) {
            return error.message();
        }
        return QStringLiteral("(no error)");
    }

    QString messageOfParse(const QStringList &arguments) {
        try {
            ParseOptions(arguments, QStringLiteral("lib.so"));
        } catch (const ToolError &error) {
            return error.message();
        }
        return QStringLiteral("(no error)");
    }

    QTemporaryDir directory_;
};

TEST_F(ConfigFileTest, EachKeyBecomesItsLongOption) {
    const struct {
        const char *toml;
        QStringList arguments;
    } cases[] = {
        {"port = \"/dev/ttyS1\"", {"--port=/dev/ttyS1"}},
        {"baud = 19200", {"--baud=19200"}},
        {"duration = 2.5", {"--duration=2.5"}},
        {"baud = \"19200\"", {"--baud=19200"}},
        {"once-table = true", {"--once-table"}},
        {"once-table = false", {}},
        {"tag = \"4x:0:2\"", {"--tag=4x:0:2"}},
        {"tag = [\"4x:0:2\", \"0x:5\"]", {"--tag=4x:0:2", "--tag=0x:5"}},
        {"[[writes]]\narea = \"4x\"\naddress = 10\nvalues = [5, 6]", {"--write=4x:10=5,6"}},
        {"[[writes]]\narea = \"0x\"\naddress = 3\nstation = 7\nvalues = 1", {"--write=0x:3:7=1"}},
    };
    for (const auto &row : cases) {
        const ConfigFile config =
            ReadConfigFile(file(QStringLiteral("a.toml"), row.toml), ShapeOfOption);
        EXPECT_EQ(config.arguments, row.arguments) << row.toml;
    }
}

// Every long option, as a key of the file and on the command line.
struct EveryOption {
    const char *key;
    const char *toml;         // the value in the file
    QStringList commandLine;  // the same on the command line
};
const EveryOption kEveryOption[] = {
    {"library", "\"x.so\"", {"--library", "x.so"}},
    {"port", "\"/dev/ttyS1\"", {"--port", "/dev/ttyS1"}},
    {"baud", "19200", {"--baud", "19200"}},
    {"data-bits", "8", {"--data-bits", "8"}},
    {"parity", "\"odd\"", {"--parity", "odd"}},
    {"stop-bits", "2", {"--stop-bits", "2"}},
    {"station", "5", {"--station", "5"}},
    {"multi-station", "true", {"--multi-station"}},
    {"max-frame-words", "10", {"--max-frame-words", "10"}},
    {"retries", "2", {"--retries", "2"}},
    {"shared-retries", "true", {"--shared-retries"}},
    {"timeout-ms", "300", {"--timeout-ms", "300"}},
    {"char-timeout-ms", "200", {"--char-timeout-ms", "200"}},
    {"turnaround-ms", "50", {"--turnaround-ms", "50"}},
    {"quiet-ms", "30", {"--quiet-ms", "30"}},
    {"link-latency-ms", "5", {"--link-latency-ms", "5"}},
    {"echo", "\"on\"", {"--echo", "on"}},
    {"demote-after", "4", {"--demote-after", "4"}},
    {"demote-ms", "2000", {"--demote-ms", "2000"}},
    {"reopen-ms", "500", {"--reopen-ms", "500"}},
    {"wait-for-port", "true", {"--wait-for-port"}},
    {"max-age-ms", "3000", {"--max-age-ms", "3000"}},
    {"rs485", "true", {"--rs485"}},
    {"rts-on-send", "\"low\"", {"--rts-on-send", "low"}},
    {"rts-delay-before-ms", "1", {"--rts-delay-before-ms", "1"}},
    {"rts-delay-after-ms", "2", {"--rts-delay-after-ms", "2"}},
    {"device-id", "3", {"--device-id", "3"}},
    {"tags", "\"t.csv\"", {"--tags", "t.csv"}},
    {"tag", "[\"4x:0\", \"0x:1\"]", {"--tag", "4x:0", "--tag", "0x:1"}},
    {"lang", "\"zh\"", {"--lang", "zh"}},
    {"plan", "true", {"--plan"}},
    {"version", "true", {"--version"}},
    {"write", "[\"4x:1=2\"]", {"--write", "4x:1=2"}},
    {"once", "[\"4x:2\"]", {"--once", "4x:2"}},
    {"cycles", "3", {"--cycles", "3"}},
    {"duration", "1.5", {"--duration", "1.5"}},
    {"once-table", "true", {"--once-table"}},
    {"format", "\"json\"", {"--format", "json"}},
    {"trace", "true", {"--trace"}},
    {"verbose", "true", {"--verbose"}},
    {"scan", "\"1-5\"", {"--scan", "1-5"}},
    {"scan-tag", "\"4x:1\"", {"--scan-tag", "4x:1"}},
    {"watch", "true", {"--watch"}},
    {"log", "\"run.jsonl\"", {"--log", "run.jsonl"}},
    {"serve", "\"8080\"", {"--serve", "8080"}},
    {"serve-token", "\"t\"", {"--serve-token", "t"}},
};

TEST_F(ConfigFileTest, EveryLongOptionGoesThroughTheFileAsOnTheCommandLine) {
    QByteArray toml;
    QStringList commandLine{"host"};
    for (const EveryOption &option : kEveryOption) {
        EXPECT_NE(ShapeOfOption(option.key), OptionShape::Unknown) << option.key;
        toml += QByteArray(option.key) + " = " + option.toml + "\n";
        commandLine += option.commandLine;
    }
    const QString path = file(QStringLiteral("every.toml"), toml);
    const HostOptions fromFile = ParseOptions({"host", "--config", path, "--print-config"}, "l");
    const HostOptions given = ParseOptions(commandLine + QStringList{"--print-config"}, "l");
    ASSERT_TRUE(fromFile.printConfig.has_value());
    EXPECT_EQ(*fromFile.printConfig, *given.printConfig);
    EXPECT_EQ(fromFile.printConfig->count(QLatin1Char('\n')), std::size(kEveryOption));
    // --help lists these and --config, --print-config and --help itself: none is left out.
    EXPECT_EQ(ShapeOfOption("config"), OptionShape::Value);
    EXPECT_EQ(ShapeOfOption("print-config"), OptionShape::Flag);
    EXPECT_EQ(ShapeOfOption("bogus"), OptionShape::Unknown);
}

TEST_F(ConfigFileTest, TagsTableRowsKeepTheirColumnsAndTheirLine) {
    const QString path = file(QStringLiteral("tags.toml"),
                              "port = \"/dev/ttyS1\"\n\n[[tags]]\nname = \"pump\"\nstation = 1\n"
                              "area = \"3x_bit\"\naddress = \"10.0\"\nlength = 6\n");
    const ConfigFile config = ReadConfigFile(path, ShapeOfOption);
    ASSERT_EQ(config.tags.size(), 1);
    const TagRow &row = config.tags.first();
    EXPECT_EQ(row.name, "pump");
    EXPECT_EQ(row.station, "1");
    EXPECT_EQ(row.area, "3x_bit");
    EXPECT_EQ(row.address, "10.0");
    EXPECT_EQ(row.length, "6");
    EXPECT_EQ(row.where, path + ":3");
    EXPECT_EQ(config.keyLines.value("port"), 1);
}

TEST_F(ConfigFileTest, ABadFileIsRefusedWithItsNameLineAndKey) {
    const struct {
        const char *toml;
        const char *message;  // after "PATH:"
    } cases[] = {
        {"port = \"x\"\nbogus = 3", "2: key 'bogus': not a setting of the tool"},
        {"baud = [1]", "1: key 'baud': expected a string or a number, found an array"},
        {"multi-station = \"yes\"",
         "1: key 'multi-station': expected true or false, found a string"},
        {"baud = true", "1: key 'baud': expected a string or a number, found true or false"},
        {"config = \"other.toml\"", "1: key 'config': not a setting of the tool"},
        {"[[tags]]\nname = \"x\"\nstation = 1\nare = \"4x\"",
         "4: key 'tags.are': not a column (name, station, area, address, length)"},
        {"[[tags]]\nname = \"x\"\nstation = 1\narea = \"4x\"\naddress = 0",
         "1: [[tags]]: missing 'length'"},
        {"[[writes]]\narea = \"4x\"\naddress = 0", "1: [[writes]]: missing 'values'"},
    };
    for (const auto &row : cases) {
        const QString path = file(QStringLiteral("bad.toml"), row.toml);
        EXPECT_EQ(messageOfRead(path), path + ":" + row.message) << row.toml;
    }
}

TEST_F(ConfigFileTest, AFileThatIsNotTomlOrIsMissingIsNamed) {
    const QString path = file(QStringLiteral("broken.toml"), "port = \"x\"\nbaud = \n");
    EXPECT_TRUE(messageOfRead(path).startsWith(path + ":2: not TOML: "))
        << messageOfRead(path).toStdString();
    const QString missing = directory_.filePath(QStringLiteral("missing.toml"));
    EXPECT_EQ(messageOfRead(missing),
              "cannot read configuration file " + missing + ": No such file or directory");
}

TEST_F(ConfigFileTest, TheCommandLineOverridesTheFile) {
    const QString path = file(QStringLiteral("run.toml"),
                              "port = \"/dev/ttyS1\"\nbaud = 19200\ntimeout-ms = 500\n"
                              "tag = [\"4x:0:2\"]\nwrite = [\"4x:9=1\"]\n");
    const HostOptions fromFile = ParseOptions({"host", "--config", path}, "lib.so");
    EXPECT_EQ(fromFile.serial.device, "/dev/ttyS1");
    EXPECT_EQ(fromFile.serial.baudRate, 19200);
    EXPECT_EQ(fromFile.tags, QStringList{"4x:0:2"});
    EXPECT_EQ(fromFile.writes, QStringList{"4x:9=1"});

    const HostOptions overridden = ParseOptions(
        {"host", "--baud", "9600", "--config", path, "--tag", "0x:1", "--tag", "0x:2"}, "lib.so");
    EXPECT_EQ(overridden.serial.baudRate, 9600);
    EXPECT_EQ(overridden.serial.device, "/dev/ttyS1");
    EXPECT_EQ(overridden.tags, (QStringList{"0x:1", "0x:2"}));
    EXPECT_EQ(overridden.writes, QStringList{"4x:9=1"});
}

TEST_F(ConfigFileTest, VariablesOnTheCommandLineReplaceAllOfTheFiles) {
    const QString path = file(QStringLiteral("tags.toml"),
                              "port = \"/dev/ttyS1\"\ntag = [\"4x:0\"]\n[[tags]]\nname = \"a\"\n"
                              "station = 1\narea = \"4x\"\naddress = 5\nlength = 1\n");
    const HostOptions fromFile = ParseOptions({"host", "--config", path}, "lib.so");
    EXPECT_EQ(fromFile.tags, QStringList{"4x:0"});
    EXPECT_EQ(fromFile.inlineTags.size(), 1);
    const HostOptions given =
        ParseOptions({"host", "--config", path, "--tags", "other.csv"}, "lib.so");
    EXPECT_TRUE(given.tags.isEmpty());
    EXPECT_TRUE(given.inlineTags.isEmpty());
    EXPECT_EQ(given.tagFile, "other.csv");
}

TEST_F(ConfigFileTest, ABadValueFromTheFileIsNamedWithItsLine) {
    const QString path =
        file(QStringLiteral("value.toml"), "port = \"/dev/ttyS1\"\nbaud = \"fast\"\n");
    EXPECT_EQ(messageOfParse({"host", "--config", path}),
              path + ":2: --baud: 'fast' is not a whole number from 1 to 2147483647");
    // Given on the command line, the same value is the command line's fault.
    EXPECT_EQ(messageOfParse({"host", "--config", path, "--baud", "slow"}),
              "--baud: 'slow' is not a whole number from 1 to 2147483647");
}

TEST_F(ConfigFileTest, PrintConfigShowsTheSettingsInEffectWithTokensHidden) {
    const QString path =
        file(QStringLiteral("print.toml"),
             "port = \"/dev/ttyS1\"\nbaud = 19200\nserve = \"0.0.0.0:8080\"\n"
             "serve-token = \"s3cret\"\nonce-table = true\n"
             "[[tags]]\nname = \"pump \\\"A\\\"\"\nstation = 1\narea = \"3x_bit\"\n"
             "address = \"10.0\"\nlength = 6\n");
    const HostOptions options =
        ParseOptions({"host", "--config", path, "--baud", "9600", "--print-config"}, "lib.so");
    ASSERT_TRUE(options.printConfig.has_value());
    EXPECT_EQ(*options.printConfig,
              "port = \"/dev/ttyS1\"\n"
              "baud = 9600\n"
              "once-table = true\n"
              "serve = \"0.0.0.0:8080\"\n"
              "serve-token = \"***\"\n"
              "\n[[tags]]\nname = \"pump \\\"A\\\"\"\nstation = 1\narea = \"3x_bit\"\n"
              "address = \"10.0\"\nlength = 6\n");
}

}  // namespace
