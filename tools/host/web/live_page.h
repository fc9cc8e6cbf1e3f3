// SPDX-License-Identifier: MIT
// --serve as the poll loop sees it: it hands over every transaction and every pass, and the
// live page publishes a snapshot of the run now and then (never more often than
// kMinimumPublishMs) for the server's threads to send.
#ifndef MODBUS_ASCII_HOST_LIVE_PAGE_H
#define MODBUS_ASCII_HOST_LIVE_PAGE_H

#include <QElapsedTimer>
#include <QList>

#include "run_stats.h"
#include "snapshot_hub.h"
#include "web_server.h"
#include "web_state.h"

class LivePage {
public:
    // Starts serving and prints the page's address on standard error.
    explicit LivePage(const ServeSettings &settings);
    // Publishes the end of the run, so that open pages show it, and stops serving.
    ~LivePage();
    LivePage(const LivePage &) = delete;
    LivePage &operator=(const LivePage &) = delete;

    void transaction(const QByteArray &frame, int result, const Exchange &exchange);
    // The values after pass (0: before the first), with the run's statistics so far.
    void pass(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats);
    // The last values, published at once and marked final.
    void finish(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats);

    static constexpr qint64 kMinimumPublishMs = 100;

private:
    void keep(qint64 pass, const QList<VariableValues> &rows, const RunStats &stats);
    void publishWhenDue();
    void publish(bool final);

    SnapshotHub hub_;
    WebServer server_;
    StationActivity activity_;
    qint64 pass_ = 0;
    QList<VariableValues> rows_;
    const RunStats *stats_ = nullptr;
    bool pending_ = false;  // something happened since the last snapshot
    QElapsedTimer sincePublished_;
};

#endif  // MODBUS_ASCII_HOST_LIVE_PAGE_H
