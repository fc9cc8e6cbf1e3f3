// SPDX-License-Identifier: MIT
// --config FILE: a TOML file whose keys are the long options, read as the command-line
// arguments they stand for, with [[tags]] (the tag file's columns) and [[writes]] tables.
#ifndef MODBUS_ASCII_HOST_CONFIG_FILE_H
#define MODBUS_ASCII_HOST_CONFIG_FILE_H

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <functional>
#include <utility>

// How a long option takes its value, as a key of the file must give it.
enum class OptionShape {
    Unknown,
    Flag,   // true or false
    Value,  // a string or a number
    List,   // repeatable: a string, or an array of strings
};

// One row of [[tags]]: the columns of a tag file, as text, and where it stands ("FILE:LINE").
struct TagRow {
    QString name;
    QString station;
    QString area;
    QString address;
    QString length;
    QString where;
};

struct ConfigFile {
    QString path;
    QStringList arguments;        // "--key=value" or "--flag", in the file's order
    QMap<QString, int> keyLines;  // the line of each key, "write" for [[writes]]
    QList<TagRow> tags;
};

// Reads path. Throws ToolError naming the file and the line, with the key when one is at
// fault: a file that cannot be read or is not TOML, a key that is no long option (or --config
// itself), a value of the wrong type, a row of [[tags]] or [[writes]] with an unknown or
// missing column.
ConfigFile ReadConfigFile(const QString &path,
                          const std::function<OptionShape(const QString &)> &shapeOf);

// The program name, the file's arguments for the options the command line leaves alone
// (overridden tells), then the command line's.
QStringList MergedArguments(const QStringList &arguments, const ConfigFile &config,
                            const std::function<bool(const QString &)> &overridden);

// Where each key the command line leaves alone stands in the file: "FILE:LINE".
QMap<QString, QString> OriginsInFile(const ConfigFile &config,
                                     const std::function<bool(const QString &)> &overridden);

// message with the place of its option in the file in front, when it begins with the name of
// one of origins' options ("tool.toml:4: --baud: ...").
QString WithOriginInFile(const QMap<QString, QString> &origins, const QString &message);

// The settings as a configuration file would give them: each option with its values (none for
// a flag), then the [[tags]]. A token or password is shown as "***".
QString ConfigText(const QList<std::pair<QString, QStringList>> &settings,
                   const QList<TagRow> &tags,
                   const std::function<OptionShape(const QString &)> &shapeOf);

#endif  // MODBUS_ASCII_HOST_CONFIG_FILE_H
