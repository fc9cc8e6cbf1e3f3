// SPDX-License-Identifier: MIT
#include "live_page.h"

#include <QDateTime>
#include <QSysInfo>
#include <cstdio>

LivePage::LivePage(const ServeSettings &settings) : server_(settings, hub_) {
    const QString address = PageAddress(settings, QSysInfo::machineHostName());
    std::fprintf(stderr, "modbus-ascii-host: the live page is at %s%s\n",
                 address.toUtf8().constData(),
                 settings.tokenMade ? " (a token made for this run)" : "");
    std::fflush(stderr);
}

LivePage::~LivePage() {
    hub_.close();
}

void LivePage::transaction(const QByteArray &frame, int result, const Exchange &exchange) {
    activity_.record(frame, result, exchange);
    pending_ = true;
    publishWhenDue();
}

void LivePage::pass(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats) {
    keep(pass, rows, stats);
    pending_ = true;
    publishWhenDue();
}

void LivePage::finish(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats) {
    keep(pass, rows, stats);
    publish(true);
}

void LivePage::keep(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats) {
    pass_ = pass;
    rows_ = rows;
    stats_ = &stats;
}

// A slow pass still shows its transactions; a fast line is not published pass by pass.
void LivePage::publishWhenDue() {
    if (!pending_ || stats_ == nullptr) return;
    if (sincePublished_.isValid() && sincePublished_.elapsed() < kMinimumPublishMs) return;
    publish(false);
}

void LivePage::publish(bool final) {
    LiveSnapshot snapshot;
    snapshot.pass = pass_;
    snapshot.final = final;
    snapshot.time = static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
    snapshot.rows = rows_;
    snapshot.summary = SummaryJson(*stats_);
    snapshot.activity = activity_.json();
    hub_.publish(std::move(snapshot));
    pending_ = false;
    sincePublished_.start();
}
