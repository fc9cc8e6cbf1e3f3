// SPDX-License-Identifier: MIT
#include "variables.h"

#include <QFile>
#include <QStringList>

#include "tool_error.h"

namespace {

const QString kTagHeader = QStringLiteral("name,station,area,address,length");
const QStringList kAreas = {"0x", "1x", "3x", "4x", "3x_bit", "4x_bit", "3x_double", "4x_double"};
const QStringList kWritableAreas = {"0x", "4x", "4x_bit", "4x_double"};
constexpr int kTopAddress = 65535;

// Adds where a message comes from ("tags.csv:7", "--tag '4x:x'") to a ToolError.
template <typename Work>
auto WithContext(const QString &context, Work work) -> decltype(work()) {
    try {
        return work();
    } catch (const ToolError &error) {
        throw ToolError(context + QStringLiteral(": ") + error.message());
    }
}

// A write value: decimal, or hexadecimal with 0x; at most maximum.
quint64 WriteValue(const QString &text, quint64 maximum) {
    bool ok = false;
    const bool hex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const quint64 value = hex ? text.mid(2).toULongLong(&ok, 16) : text.toULongLong(&ok, 10);
    if (!ok || value > maximum) {
        throw ToolError(QStringLiteral("value '%1' is not a number from 0 to %2")
                            .arg(text, QString::number(maximum)));
    }
    return value;
}

// Appends value as size bytes, least significant first (the driver's byte order).
void AppendLittleEndian(QByteArray &bytes, quint64 value, int size) {
    for (int i = 0; i < size; ++i) bytes.append(static_cast<char>((value >> (8 * i)) & 0xFF));
}

// Bytes per value at the interface: one per bit, two per register, four per 32-bit value.
int BytesPerValue(ValueKind kind) {
    return kind == ValueKind::Bit ? 1 : kind == ValueKind::Register ? 2 : 4;
}

// The value bytes and element count of a write, in the layout of the area.
void EncodeWriteValues(const QStringList &texts, WriteRequest &request) {
    const ValueKind kind = KindOfArea(request.area);
    const int size = BytesPerValue(kind);
    const quint64 maximum = kind == ValueKind::Bit ? 1 : (quint64{1} << (8 * size)) - 1;
    for (const QString &text : texts) {
        AppendLittleEndian(request.value, WriteValue(text.trimmed(), maximum), size);
    }
    request.count = kind == ValueKind::DoubleWord ? 2 * texts.size() : texts.size();
}

QStringList CsvFields(const QString &line) {
    QStringList fields = line.split(QLatin1Char(','));
    for (QString &field : fields) field = field.trimmed();
    return fields;
}

// The first control character of a line (tab and the CR of a CRLF line end aside): a NUL
// or the like in a tag file is a damaged file, never part of a name.
int ControlCharacterAt(const QByteArray &line) {
    for (int i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<quint8>(line[i]);
        const bool lineEnd = byte == '\r' && i == line.size() - 1;
        if ((byte < 0x20 && byte != '\t' && !lineEnd) || byte == 0x7F) return i;
    }
    return -1;
}

// Splits a tag file into lines and refuses one that holds a control character.
QStringList TagFileLines(const QString &path, const QByteArray &contents) {
    QStringList lines;
    const QList<QByteArray> rawLines = contents.split('\n');
    for (int i = 0; i < rawLines.size(); ++i) {
        const int column = ControlCharacterAt(rawLines[i]);
        if (column >= 0) {
            throw ToolError(
                QStringLiteral("%1:%2: control character 0x%3 at column %4")
                    .arg(path)
                    .arg(i + 1)
                    .arg(static_cast<quint8>(rawLines[i][column]), 2, 16, QLatin1Char('0'))
                    .arg(column + 1));
        }
        lines.append(QString::fromUtf8(rawLines[i]));
    }
    return lines;
}

// The last coil, register or bit of a span, in the area's own addressing (bits of a
// register for the _bit areas), against the top of the area.
void CheckSpanFitsArea(const QString &area, const QString &addressText, int address, int length) {
    const bool bitInRegister = area.endsWith(QLatin1String("_bit"));
    const qint64 top = bitInRegister ? qint64(kTopAddress) * 16 + 15 : kTopAddress;
    const qint64 last = qint64{address} + length - 1;
    if (last <= top) return;
    const QString unit =
        KindOfArea(area) == ValueKind::Bit ? QStringLiteral("bits") : QStringLiteral("registers");
    throw ToolError(
        QStringLiteral("span of %1 %2 from %3 runs past the top of area %4 (%5)")
            .arg(length)
            .arg(unit, addressText, area,
                 bitInRegister ? QStringLiteral("65535.15") : QString::number(kTopAddress)));
}

bool IsBlankOrComment(const QString &line) {
    const QString trimmed = line.trimmed();
    return trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#'));
}

}  // namespace

ValueKind KindOfArea(const QString &area) {
    if (area == QLatin1String("0x") || area == QLatin1String("1x") ||
        area == QLatin1String("3x_bit") || area == QLatin1String("4x_bit")) {
        return ValueKind::Bit;
    }
    if (area.endsWith(QLatin1String("_double"))) return ValueKind::DoubleWord;
    return ValueKind::Register;
}

QList<quint32> CurrentValues(const DriverApi &api, const Variable &variable) {
    QByteArray bytes;
    api.getRegisterData(variable.area, variable.address, variable.station, bytes, variable.length);
    const int size = BytesPerValue(KindOfArea(variable.area));
    QList<quint32> values;
    for (int first = 0; first + size <= bytes.size(); first += size) {
        quint32 value = 0;
        for (int i = size - 1; i >= 0; --i) {
            value = (value << 8) | static_cast<quint8>(bytes[first + i]);
        }
        values.append(value);
    }
    return values;
}

VariableParser::VariableParser(const DriverApi &api, const HostOptions &options)
    : api_(api), options_(options) {}

QList<Variable> VariableParser::readTagFile(const QString &path) const {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        throw ToolError(
            QStringLiteral("cannot read tag file %1: %2").arg(path, file.errorString()));
    }
    const QStringList lines = TagFileLines(path, file.readAll());
    QList<Variable> variables;
    bool headerSeen = false;
    for (int i = 0; i < lines.size(); ++i) {
        if (IsBlankOrComment(lines[i])) continue;
        const QString context = QStringLiteral("%1:%2").arg(path, QString::number(i + 1));
        if (!headerSeen) {
            if (CsvFields(lines[i]).join(QLatin1Char(',')) != kTagHeader) {
                throw ToolError(context + QStringLiteral(": expected the header ") + kTagHeader);
            }
            headerSeen = true;
            continue;
        }
        variables.append(WithContext(context, [&] { return parseTagLine(lines[i]); }));
    }
    if (variables.isEmpty()) {
        throw ToolError(QStringLiteral("%1:%2: no variables in the tag file%3")
                            .arg(path)
                            .arg(lines.size())
                            .arg(headerSeen ? QString()
                                            : QStringLiteral(" (expected the header ") +
                                                  kTagHeader + QLatin1Char(')')));
    }
    return variables;
}

Variable VariableParser::parseTagLine(const QString &line) const {
    const QStringList fields = CsvFields(line);
    if (fields.size() != 5) {
        throw ToolError(
            QStringLiteral("expected 5 fields (%1), found %2").arg(kTagHeader).arg(fields.size()));
    }
    return makeVariable(fields[0], fields[1], fields[2], fields[3], fields[4]);
}

Variable VariableParser::parseTagRow(const TagRow &row) const {
    return WithContext(row.where, [&] {
        return makeVariable(row.name, row.station, row.area, row.address, row.length);
    });
}

Variable VariableParser::parseVariableOption(const QString &text, const QString &option) const {
    return WithContext(QStringLiteral("--%1 '%2'").arg(option, text), [&] {
        const QStringList parts = text.split(QLatin1Char(':'));
        if (parts.size() < 2 || parts.size() > 4) {
            throw ToolError(QStringLiteral("expected AREA:ADDRESS[:LENGTH[:STATION]]"));
        }
        return makeVariable(parts[0] + QLatin1Char(':') + parts[1], parts.value(3), parts[0],
                            parts[1], parts.value(2));
    });
}

WriteRequest VariableParser::parseWriteOption(const QString &text) const {
    return WithContext(QStringLiteral("--write '%1'").arg(text), [&] {
        const int equals = text.indexOf(QLatin1Char('='));
        const QStringList target = text.left(equals).split(QLatin1Char(':'));
        if (equals < 0 || target.size() < 2 || target.size() > 3) {
            throw ToolError(QStringLiteral("expected AREA:ADDRESS[:STATION]=VALUE[,VALUE...]"));
        }
        WriteRequest request;
        request.text = text;
        request.area = target[0];
        if (!kWritableAreas.contains(request.area)) {
            throw ToolError(QStringLiteral("area '%1' cannot be written; writable areas: %2")
                                .arg(request.area, kWritableAreas.join(QStringLiteral(", "))));
        }
        request.station = stationOf(target.value(2));
        // The driver reads the register before it writes one of its bits; a broadcast has no
        // reply to read, so the driver would never send such a write.
        if (request.area == QLatin1String("4x_bit") && request.station == 0) {
            throw ToolError(QStringLiteral("a bit inside a register cannot be broadcast"));
        }
        EncodeWriteValues(text.mid(equals + 1).split(QLatin1Char(',')), request);
        request.address = checkedAddress(request.area, target[1], request.count);
        return request;
    });
}

Variable VariableParser::makeVariable(const QString &name, const QString &stationText,
                                      const QString &area, const QString &addressText,
                                      const QString &lengthText) const {
    Variable variable;
    variable.name = name;
    variable.station = stationOf(stationText);
    if (variable.station == 0) {
        throw ToolError(
            QStringLiteral("station 0 is the broadcast address, which no slave "
                           "answers: it cannot be read"));
    }
    variable.area = area;
    variable.addressText = addressText;
    const bool doubleWord = KindOfArea(area) == ValueKind::DoubleWord;
    variable.length = lengthText.isEmpty()
                          ? (doubleWord ? 2 : 1)
                          : WholeNumber(lengthText, QStringLiteral("length"), 1, 0x100000);
    if (doubleWord && variable.length % 2 != 0) {
        throw ToolError(
            QStringLiteral("a 32-bit variable takes two registers per value; "
                           "its length must be even"));
    }
    variable.address = checkedAddress(area, addressText, variable.length);
    return variable;
}

// The station of a variable or write. Without --multi-station the driver sends everything to
// --station, so a different one is refused rather than silently ignored.
int VariableParser::stationOf(const QString &text) const {
    if (text.isEmpty()) return options_.station;
    const int station = WholeNumber(text, QStringLiteral("station"), 0, 255);
    if (!options_.multiStation && station != options_.station) {
        throw ToolError(QStringLiteral("station %1 differs from --station %2; "
                                       "use --multi-station to poll several stations")
                            .arg(station)
                            .arg(options_.station));
    }
    return station;
}

// The driver's encoding of an address text, or its own message when it refuses the text. The
// address alone is checked first, so that a span past the top of the area is named as such.
int VariableParser::checkedAddress(const QString &area, const QString &text, int length) const {
    const int dataKind = KindOfArea(area) == ValueKind::Bit ? 0 : 1;
    int address = -1;
    QString message = api_.checkAddrCorrect(area, text, &address, 1, options_.language, dataKind);
    if (!kAreas.contains(area)) {
        throw ToolError(QStringLiteral("%1 (area '%2'; areas: %3)")
                            .arg(message, area, kAreas.join(QStringLiteral(", "))));
    }
    if (message.isEmpty() && address >= 0) CheckSpanFitsArea(area, text, address, length);
    message = api_.checkAddrCorrect(area, text, &address, length, options_.language, dataKind);
    if (!message.isEmpty()) throw ToolError(message);
    if (address < 0) {
        // The driver answers a refused text with a message for the flags 0 and 1; an empty
        // message with no address would be a driver fault, reported rather than passed on.
        throw ToolError(QStringLiteral("address '%1' is not valid for area %2").arg(text, area));
    }
    return address;
}
