// SPDX-License-Identifier: MIT
// Dead stations: a station that stops answering is set aside, so that its time-outs do not
// stall the live ones; after a while one request probes it, and an answer brings it back.
// The tool then hands the driver a read list without the set-aside stations' variables; the
// driver's scheduler is left as it is.
#ifndef MODBUS_ASCII_HOST_STATION_DEMOTION_H
#define MODBUS_ASCII_HOST_STATION_DEMOTION_H

#include <QMap>
#include <QString>
#include <QtGlobal>
#include <set>

struct DemotionSettings {
    int demoteAfter = 3;   // consecutive attempts without an answer that set a station aside
    int demoteMs = 10000;  // how long it stays aside before one request probes it
};

// Where one station stands.
struct StationStanding {
    int silentAttempts = 0;  // consecutive attempts without an answer
    bool setAside = false;
    bool probing = false;     // its time aside is over: its requests are back on the read list
    qint64 asideUntilMs = 0;  // while set aside
    int demotions = 0;        // times it was set aside in the run
};

class StationDemotion {
public:
    explicit StationDemotion(const DemotionSettings &settings) : settings_(settings) {}

    // Notes one attempt with station (broadcasts are not noted) at nowMs; true when the
    // station was set aside or brought back by it.
    bool note(int station, bool answered, qint64 nowMs);
    // Stations whose time aside is over at nowMs start probing; true when any did.
    bool startProbes(qint64 nowMs);
    // Stations whose cyclic reads are left out of the read list.
    std::set<int> setAside() const;

    const QMap<int, StationStanding> &standings() const { return standings_; }

private:
    DemotionSettings settings_;
    QMap<int, StationStanding> standings_;
};

// "answering", or "set aside until 12.3 s" (seconds of the run), or "probing".
QString StandingText(const StationStanding &standing);

#endif  // MODBUS_ASCII_HOST_STATION_DEMOTION_H
