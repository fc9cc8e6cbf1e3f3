// SPDX-License-Identifier: MIT
// Reading a TOML configuration file (toml++) into the arguments its keys stand for.
#include "config_file.h"

#include <toml++/toml.h>

#include <QFile>
#include <string>

#include "tool_error.h"

namespace {

const QStringList kTagColumns = {"name", "station", "area", "address", "length"};
const QStringList kWriteColumns = {"area", "address", "station", "values"};

QString Text(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

int LineOf(const toml::node &node) {
    return static_cast<int>(node.source().begin.line);
}

const char *TypeName(const toml::node &node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "a whole number";
        case toml::node_type::floating_point:
            return "a number";
        case toml::node_type::boolean:
            return "true or false";
        default:
            return "a date or time";
    }
}

// [[writes]]: its rows are --write options.
bool IsWritesTable(const QString &key, const toml::node &node) {
    return key == QLatin1String("writes") && node.is_array_of_tables();
}

class Reader {
public:
    Reader(const QString &path, const std::function<OptionShape(const QString &)> &shapeOf)
        : shapeOf_(shapeOf) {
        config_.path = path;
    }

    ConfigFile read(const toml::table &table) {
        for (auto &&[key, node] : table) readKey(Text(key.str()), node);
        return config_;
    }

private:
    [[noreturn]] void refuse(const toml::node &node, const QString &key,
                             const QString &message) const {
        throw ToolError(QStringLiteral("%1:%2: key '%3': %4")
                            .arg(config_.path)
                            .arg(LineOf(node))
                            .arg(key, message));
    }

    // A string or a number as the text an option would get.
    QString scalarText(const toml::node &node, const QString &key) const {
        if (const auto *text = node.as_string()) return Text(text->get());
        if (const auto *number = node.as_integer()) return QString::number(number->get());
        if (const auto *number = node.as_floating_point()) {
            return QString::number(number->get(), 'g', 15);
        }
        refuse(node, key,
               QStringLiteral("expected a string or a number, found %1")
                   .arg(QLatin1String(TypeName(node))));
    }

    void readKey(const QString &key, const toml::node &node) {
        config_.keyLines.insert(IsWritesTable(key, node) ? QStringLiteral("write") : key,
                                LineOf(node));
        if (key == QLatin1String("tags") && node.is_array_of_tables()) {
            for (const toml::node &row : *node.as_array()) readTagRow(*row.as_table());
            return;
        }
        if (IsWritesTable(key, node)) {
            for (const toml::node &row : *node.as_array()) readWriteRow(*row.as_table());
            return;
        }
        const OptionShape shape =
            key == QLatin1String("config") ? OptionShape::Unknown : shapeOf_(key);
        switch (shape) {
            case OptionShape::Unknown:
                refuse(node, key, QStringLiteral("not a setting of the tool"));
            case OptionShape::Flag:
                if (!node.is_boolean()) {
                    refuse(node, key,
                           QStringLiteral("expected true or false, found %1")
                               .arg(QLatin1String(TypeName(node))));
                }
                if (node.as_boolean()->get()) config_.arguments << QStringLiteral("--") + key;
                return;
            case OptionShape::Value:
                config_.arguments << QStringLiteral("--%1=%2").arg(key, scalarText(node, key));
                return;
            case OptionShape::List:
                if (const auto *array = node.as_array()) {
                    for (const toml::node &item : *array) {
                        config_.arguments
                            << QStringLiteral("--%1=%2").arg(key, scalarText(item, key));
                    }
                    return;
                }
                config_.arguments << QStringLiteral("--%1=%2").arg(key, scalarText(node, key));
                return;
        }
    }

    // The columns of a row of [[tags]] or [[writes]]; refuses one that is not among columns.
    void checkColumns(const toml::table &row, const QString &table,
                      const QStringList &columns) const {
        for (auto &&[key, node] : row) {
            if (!columns.contains(Text(key.str()))) {
                refuse(node, QStringLiteral("%1.%2").arg(table, Text(key.str())),
                       QStringLiteral("not a column (%1)").arg(columns.join(QStringLiteral(", "))));
            }
        }
    }

    QString column(const toml::table &row, const QString &table, const QString &name) const {
        const toml::node *node = row.get(name.toStdString());
        if (node == nullptr) {
            throw ToolError(QStringLiteral("%1:%2: [[%3]]: missing '%4'")
                                .arg(config_.path)
                                .arg(LineOf(row))
                                .arg(table, name));
        }
        return scalarText(*node, QStringLiteral("%1.%2").arg(table, name));
    }

    void readTagRow(const toml::table &row) {
        checkColumns(row, QStringLiteral("tags"), kTagColumns);
        const QString table = QStringLiteral("tags");
        config_.tags.append({column(row, table, "name"), column(row, table, "station"),
                             column(row, table, "area"), column(row, table, "address"),
                             column(row, table, "length"),
                             QStringLiteral("%1:%2").arg(config_.path).arg(LineOf(row))});
    }

    // {area, address, station?, values} as the text of a --write.
    void readWriteRow(const toml::table &row) {
        checkColumns(row, QStringLiteral("writes"), kWriteColumns);
        const QString table = QStringLiteral("writes");
        QString target =
            column(row, table, "area") + QLatin1Char(':') + column(row, table, "address");
        if (row.contains("station")) target += QLatin1Char(':') + column(row, table, "station");
        QStringList values;
        const toml::node *given = row.get("values");
        if (given != nullptr && given->is_array()) {
            for (const toml::node &value : *given->as_array()) {
                values << scalarText(value, QStringLiteral("writes.values"));
            }
        } else {
            values << column(row, table, "values");
        }
        config_.arguments << QStringLiteral("--write=%1=%2").arg(target, values.join(','));
    }

    const std::function<OptionShape(const QString &)> &shapeOf_;
    ConfigFile config_;
};

bool IsSecret(const QString &key) {
    return key.contains(QLatin1String("token")) || key.contains(QLatin1String("password"));
}

QString Quoted(const QString &text) {
    QString quoted = text;
    quoted.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    quoted.replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

// A whole number written as such stays a number; anything else ("+5", "007") is a string.
QString ValueText(const QString &text) {
    bool whole = false;
    const qlonglong number = text.toLongLong(&whole, 10);
    return whole && QString::number(number) == text ? text : Quoted(text);
}

}  // namespace

QStringList MergedArguments(const QStringList &arguments, const ConfigFile &config,
                            const std::function<bool(const QString &)> &overridden) {
    QStringList merged{arguments.value(0)};
    for (const QString &argument : config.arguments) {
        const QString option = argument.mid(2).section(QLatin1Char('='), 0, 0);
        if (!overridden(option)) merged << argument;
    }
    merged << arguments.mid(1);
    return merged;
}

QMap<QString, QString> OriginsInFile(const ConfigFile &config,
                                     const std::function<bool(const QString &)> &overridden) {
    QMap<QString, QString> origins;
    for (auto it = config.keyLines.cbegin(); it != config.keyLines.cend(); ++it) {
        if (!overridden(it.key())) {
            origins.insert(it.key(), QStringLiteral("%1:%2").arg(config.path).arg(it.value()));
        }
    }
    return origins;
}

QString WithOriginInFile(const QMap<QString, QString> &origins, const QString &message) {
    for (auto it = origins.cbegin(); it != origins.cend(); ++it) {
        const QString option = QStringLiteral("--") + it.key();
        const QChar next = message.size() > option.size() ? message.at(option.size()) : QChar();
        if (message.startsWith(option) && !next.isLetterOrNumber() && next != QLatin1Char('-')) {
            return it.value() + QStringLiteral(": ") + message;
        }
    }
    return message;
}

QString ConfigText(const QList<std::pair<QString, QStringList>> &settings,
                   const QList<TagRow> &tags,
                   const std::function<OptionShape(const QString &)> &shapeOf) {
    QString text;
    for (const auto &[key, values] : settings) {
        QString value;
        if (values.isEmpty()) {
            value = QStringLiteral("true");
        } else if (IsSecret(key)) {
            value = Quoted(QStringLiteral("***"));
        } else if (shapeOf(key) == OptionShape::List) {
            QStringList items;
            for (const QString &item : values) items << Quoted(item);
            value = QLatin1Char('[') + items.join(QStringLiteral(", ")) + QLatin1Char(']');
        } else {
            value = ValueText(values.last());
        }
        text += key + QStringLiteral(" = ") + value + QLatin1Char('\n');
    }
    for (const TagRow &row : tags) {
        text += QStringLiteral(
                    "\n[[tags]]\nname = %1\nstation = %2\narea = %3\naddress = %4\n"
                    "length = %5\n")
                    .arg(Quoted(row.name), ValueText(row.station), Quoted(row.area),
                         ValueText(row.address), ValueText(row.length));
    }
    return text;
}

ConfigFile ReadConfigFile(const QString &path,
                          const std::function<OptionShape(const QString &)> &shapeOf) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw ToolError(
            QStringLiteral("cannot read configuration file %1: %2").arg(path, file.errorString()));
    }
    const QByteArray content = file.readAll();
    try {
        const toml::table table =
            toml::parse(std::string_view(content.constData(), static_cast<size_t>(content.size())),
                        path.toStdString());
        return Reader(path, shapeOf).read(table);
    } catch (const toml::parse_error &error) {
        throw ToolError(QStringLiteral("%1:%2: not TOML: %3")
                            .arg(path)
                            .arg(error.source().begin.line)
                            .arg(Text(error.description())));
    }
}
