// SPDX-License-Identifier: MIT
// The Prometheus text of a snapshot: names with the modbus_ascii_ prefix, base units (seconds),
// counters ending in _total, HELP and TYPE for every family.
#include "metrics_text.h"

#include <QJsonArray>
#include <QJsonObject>
#include <charconv>
#include <cmath>

namespace {

const char *const kOutcomes[] = {"noReply", "badContent", "wrongLength", "exception", "badEcho"};

std::string Number(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    char text[400];  // fixed notation of the largest double
    // The shortest digits that read back as the value, without an exponent ("0.0005").
    const auto written = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
    return std::string(text, written.ptr);
}

class Family {
public:
    Family(std::string &out, const std::string &name, const char *type, const char *help)
        : out_(out), name_(name) {
        out_ += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    // A sample of the family, or of a suffixed series of it (_bucket, _sum, _count).
    void sample(const std::string &labels, double value, const char *suffix = "") {
        out_ += name_ + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " + Number(value) +
                "\n";
    }

private:
    std::string &out_;
    std::string name_;
};

std::string StationLabel(const QJsonValue &station) {
    return "station=\"" + std::to_string(station.toInt()) + "\"";
}

void Transactions(std::string &out, const QJsonArray &stations) {
    Family family(out, "modbus_ascii_transactions_total", "counter",
                  "Transactions with a station, by what they came to.");
    for (const QJsonValue &value : stations) {
        const QJsonObject station = value.toObject();
        const std::string label = StationLabel(station.value("station"));
        family.sample(label + ",outcome=\"accepted\"", station.value("accepted").toDouble());
        const QJsonObject failures = station.value("failures").toObject();
        for (const char *outcome : kOutcomes) {
            family.sample(label + ",outcome=\"" + outcome + "\"",
                          failures.value(QLatin1String(outcome)).toDouble());
        }
    }
}

void ResponseTimes(std::string &out, const QJsonArray &activity) {
    Family family(out, "modbus_ascii_response_seconds", "histogram",
                  "Time from the end of a request to the end of its reply, of every "
                  "transaction that brought one.");
    for (const QJsonValue &value : activity) {
        const QJsonObject station = value.toObject();
        const std::string label = StationLabel(station.value("station"));
        const QJsonObject histogram = station.value("responseHistogram").toObject();
        const QJsonArray edges = histogram.value("edgesMs").toArray();
        const QJsonArray counts = histogram.value("counts").toArray();
        double cumulative = 0;
        for (int i = 0; i < counts.size(); ++i) {
            cumulative += counts[i].toDouble();
            const std::string edge =
                i < edges.size() ? Number(edges[i].toDouble() / 1000) : std::string("+Inf");
            std::string labels = label;
            labels += ",le=\"";
            labels += edge;
            labels += '"';
            family.sample(labels, cumulative, "_bucket");
        }
        family.sample(label, histogram.value("sumSeconds").toDouble(), "_sum");
        family.sample(label, cumulative, "_count");
    }
}

void LineFigures(std::string &out, const QJsonObject &summary) {
    Family(out, "modbus_ascii_passes_total", "counter", "Full passes of the read list.")
        .sample("", summary.value("passes").toDouble());
    Family(out, "modbus_ascii_port_losses_total", "counter",
           "Times the port, or the connection to a device server, went away.")
        .sample("", summary.value("portLosses").toDouble());
    Family(out, "modbus_ascii_port_down_seconds_total", "counter", "Time the port was away.")
        .sample("", summary.value("portDownMs").toDouble() / 1000);
    Family(out, "modbus_ascii_late_replies_total", "counter",
           "Replies that came after their request had timed out.")
        .sample("", summary.value("lateReplies").toObject().value("count").toDouble());
    Family(out, "modbus_ascii_echoes_removed_total", "counter",
           "Echoes of the requests removed from the line.")
        .sample("", summary.value("echo").toObject().value("removed").toDouble());
    double setAside = 0;
    const QJsonArray stations = summary.value("stations").toArray();
    for (const QJsonValue &station : stations) {
        if (station.toObject().value("standing").toString().startsWith("set aside")) ++setAside;
    }
    Family(out, "modbus_ascii_stations_set_aside", "gauge", "Stations set aside for not answering.")
        .sample("", setAside);
}

void ValueAges(std::string &out, const QList<VariableValues> &rows) {
    Family family(out, "modbus_ascii_value_age_seconds", "gauge",
                  "Age of the answer a polled value comes from (NaN while it has none).");
    for (const VariableValues &row : rows) {
        const Variable &variable = row.variable;
        const std::string labels = "station=\"" + std::to_string(variable.station) + "\",name=\"" +
                                   EscapedLabel(variable.name.toStdString()) + "\",area=\"" +
                                   EscapedLabel(variable.area.toStdString()) + "\",address=\"" +
                                   EscapedLabel(variable.addressText.toStdString()) + "\"";
        family.sample(labels, row.ageMs ? static_cast<double>(*row.ageMs) / 1000 : NAN);
    }
}

}  // namespace

std::string EscapedLabel(const std::string &value) {
    std::string escaped;
    for (char c : value) {
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string MetricsText(const LiveSnapshot &snapshot) {
    std::string out;
    Transactions(out, snapshot.summary.value("stations").toArray());
    ResponseTimes(out, snapshot.activity);
    LineFigures(out, snapshot.summary);
    ValueAges(out, snapshot.rows);
    return out;
}
