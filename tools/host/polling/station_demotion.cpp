// SPDX-License-Identifier: MIT
// Setting silent stations aside, probing them, and how their standing is shown.
#include "station_demotion.h"

bool StationDemotion::note(int station, bool answered, qint64 nowMs) {
    StationStanding &standing = standings_[station];
    if (answered) {
        const bool restored = standing.setAside || standing.probing;
        standing = StationStanding{0, false, false, 0, standing.demotions};
        return restored;
    }
    ++standing.silentAttempts;
    // A probe gets one attempt; a station that answered lately gets demoteAfter.
    const bool demote = standing.probing ||
                        (!standing.setAside && standing.silentAttempts >= settings_.demoteAfter);
    if (!demote) return false;
    standing.setAside = true;
    standing.probing = false;
    standing.asideUntilMs = nowMs + settings_.demoteMs;
    ++standing.demotions;
    return true;
}

bool StationDemotion::startProbes(qint64 nowMs) {
    bool started = false;
    for (StationStanding &standing : standings_) {
        if (standing.setAside && nowMs >= standing.asideUntilMs) {
            standing.setAside = false;
            standing.probing = true;
            started = true;
        }
    }
    return started;
}

std::set<int> StationDemotion::setAside() const {
    std::set<int> stations;
    for (auto it = standings_.cbegin(); it != standings_.cend(); ++it) {
        if (it.value().setAside) stations.insert(it.key());
    }
    return stations;
}

QString StandingText(const StationStanding &standing) {
    if (standing.setAside) {
        return QStringLiteral("set aside until %1 s")
            .arg(static_cast<double>(standing.asideUntilMs) / 1000, 0, 'f', 1);
    }
    return standing.probing ? QStringLiteral("probing") : QStringLiteral("answering");
}
