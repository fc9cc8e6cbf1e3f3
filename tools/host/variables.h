// SPDX-License-Identifier: MIT
// The host's variables, writes and one-shot reads, read from the command line and tag files
// and checked with the driver's own address rules (CheckAddrCorrect).
#ifndef MODBUS_ASCII_HOST_VARIABLES_H
#define MODBUS_ASCII_HOST_VARIABLES_H

#include <QByteArray>
#include <QList>
#include <QString>

#include "driver_api.h"
#include "host_options.h"

// How the values of an area are laid out in the driver's byte arrays.
enum class ValueKind {
    Bit,         // one byte per bit: "0x", "1x", "3x_bit", "4x_bit"
    Register,    // two bytes per register, low byte first: "3x", "4x"
    DoubleWord,  // four bytes per 32-bit value, least significant first: "_double" areas
};
ValueKind KindOfArea(const QString &area);

// One variable to poll or to read once.
struct Variable {
    QString name;
    int station = 0;
    QString area;
    QString addressText;  // as the user wrote it, e.g. "100.15"
    int address = 0;      // the driver's encoding: register * 16 + bit for the _bit areas
    int length = 0;       // coils or inputs, registers (two per 32-bit value), or bits
};

// One --write: the arguments of SetRegisterData.
struct WriteRequest {
    QString text;  // the option as given, for messages
    QString area;
    int address = 0;
    int station = 0;
    QByteArray value;
    int count = 0;  // bits or registers
};

// The variable's current values from the driver's cache (GetRegisterData), one number per
// bit, register or 32-bit value.
QList<quint32> CurrentValues(const DriverApi &api, const Variable &variable);

class VariableParser {
public:
    VariableParser(const DriverApi &api, const HostOptions &options);

    // A CSV file with the header name,station,area,address,length.
    QList<Variable> readTagFile(const QString &path) const;
    // A row of [[tags]] in --config, checked as a line of a tag file.
    Variable parseTagRow(const TagRow &row) const;
    // AREA:ADDRESS[:LENGTH[:STATION]], as given to --tag and --once.
    Variable parseVariableOption(const QString &text, const QString &option) const;
    // AREA:ADDRESS[:STATION]=VALUE[,VALUE...]
    WriteRequest parseWriteOption(const QString &text) const;

private:
    Variable makeVariable(const QString &name, const QString &stationText, const QString &area,
                          const QString &addressText, const QString &lengthText) const;
    Variable parseTagLine(const QString &line) const;
    int stationOf(const QString &text) const;
    int checkedAddress(const QString &area, const QString &text, int length) const;

    const DriverApi &api_;
    const HostOptions &options_;
};

#endif  // MODBUS_ASCII_HOST_VARIABLES_H
