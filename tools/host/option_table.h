// SPDX-License-Identifier: MIT
// The tool's long options: a parser that knows them all, how each takes its value, and the
// ones a parse was given.
#ifndef MODBUS_ASCII_HOST_OPTION_TABLE_H
#define MODBUS_ASCII_HOST_OPTION_TABLE_H

#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>
#include <utility>

#include "config_file.h"

// parser with the tool's description and every long option added.
QCommandLineParser &WithOptions(QCommandLineParser &parser);

// How the long option name takes its value (Unknown: there is none of that name).
OptionShape ShapeOfOption(const QString &name);

// The settings as given, in the order of --help: each option with its values (none for a
// flag); --config and --print-config left out.
QList<std::pair<QString, QStringList>> SettingsInEffect(const QCommandLineParser &parser);

#endif  // MODBUS_ASCII_HOST_OPTION_TABLE_H
