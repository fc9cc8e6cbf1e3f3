// SPDX-License-Identifier: MIT
// The host's communication loop: ComCommunication, the line, DataCom, over and over.
#ifndef MODBUS_ASCII_HOST_POLL_LOOP_H
#define MODBUS_ASCII_HOST_POLL_LOOP_H

#include <QElapsedTimer>
#include <functional>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "driver_api.h"
#include "host_options.h"
#include "line_observer.h"
#include "read_list_order.h"
#include "run_stats.h"
#include "serial_link.h"
#include "station_demotion.h"
#include "stop_request.h"
#include "value_freshness.h"
#include "write_queue.h"

// The driver's completion callback; records every call for the loop to collect.
int RecordCompletion(int deviceId, int ownerType, int ownerId, int status);

// When the loop ends.
struct RunLimits {
    std::optional<int> passes;
    std::optional<double> durationSeconds;
    int readRequests = 0;  // length of the cyclic read list, as ReCreatReadVarList returned it
};

// How the loop reports and retries.
struct LoopSettings {
    bool trace = false;    // the observer is told of every frame
    bool verbose = false;  // the observer is told of every completion
    LineObserver *observer = nullptr;
    bool sharedRetries = false;  // leave ComInfo's retry count to the driver
    // Called after every transaction with the frame sent, DataCom's result and the exchange.
    std::function<void(const QByteArray &, int, const Exchange &)> onTransaction;
    bool multiStation = false;  // the driver keeps its cache per station (ComInfo's flag)
    DemotionSettings demotion;
    std::vector<ReadGroup> polledGroups;  // groups of the read list, in the variables' order
    // Hands the driver a read list of the variables of these groups, in this order; returns
    // the number of merged read requests. Without it no station is set aside.
    std::function<int(const std::vector<ReadGroup> &)> rebuildReadList;
    // Called when a station is set aside or brought back, with its station and standing.
    std::function<void(int, const QString &)> onStationStanding;
    int reopenMs = 1000;  // between attempts to reopen a port that went away
    // How old a polled value may be and still be shown (0: PassAgeBoundMs of the read list,
    // the attempts of a request, the reply time-out and the quiet gap).
    int maxAgeMs = 0;
    int attempts = 4;
    int replyTimeoutMs = 1000;
    int quietMs = 200;
    // Called when the port is lost or back, with what happened.
    std::function<void(const QString &)> onPortChange;
    // Called on every turn of the loop, a transaction or an idle wait: a sign that it turns.
    std::function<void()> onTurn;
};

// The settings that come straight from the command line: trace, verbose, retries, the
// driver's cache mode, the time between attempts to reopen a lost port and what bounds the age
// of a value shown.
LoopSettings LoopSettingsOf(const HostOptions &options);

// (ownerType, ownerId) of a queued write or one-shot read whose completion is awaited.
using Owner = std::pair<int, int>;

class PollLoop {
public:
    PollLoop(const DriverApi &api, ComInfo &comInfo, SerialLink &link, const RunLimits &limits,
             WriteQueue &writes, const LoopSettings &settings);

    // Runs until the limits are reached, every awaited owner and every write has completed,
    // or a stop signal, which also cuts short the transaction in progress.
    // onPass is called after every full pass of the read list with the number of passes.
    void run(std::set<Owner> awaited, const std::function<void(qint64)> &onPass);
    const RunStats &stats() const { return stats_; }
    const ValueFreshness &freshness() const { return freshness_; }

private:
    struct SentFrame {
        QByteArray frame;
        bool replyExpected = false;
        bool cyclicRead = false;
        RW_VAR var;
    };

    bool finished() const;
    bool stopNow() const;
    bool serveOneFrame();
    Protocol *nextFrame();
    int deliverReply(QByteArray &reply);
    void collectCompletions(int result);
    void countPass(const SentFrame &sent, int result);
    void endPassWhenDone();
    void takeDriverCycleMark(bool afterReply);
    void noteStanding(const SentFrame &sent, const Exchange &exchange);
    void updateReadList();
    qint64 valueAgeBoundMs() const;
    void setValueAgeBound();
    void notePortLost(const QString &reason);
    bool tryReopen();

    const DriverApi &api_;
    ComInfo &comInfo_;
    SerialLink &link_;
    WriteQueue &writes_;
    RunLimits limits_;
    bool trace_;
    bool verbose_;
    LineObserver *observer_;
    bool sharedRetries_;
    std::function<void(const QByteArray &, int, const Exchange &)> onTransaction_;
    RunStats stats_;
    ValueFreshness freshness_;
    QElapsedTimer clock_;
    std::set<Owner> awaited_;
    std::function<void(qint64)> onPass_;
    int cyclicDoneInPass_ = 0;
    StationDemotion demotion_;
    std::vector<ReadGroup> polledGroups_;
    std::set<int> polledStations_;
    std::set<int> listedStations_;  // stations of the read list the driver holds
    std::function<int(const std::vector<ReadGroup> &)> rebuildReadList_;
    std::function<void(int, const QString &)> onStationStanding_;
    int listedReadRequests_ = 0;  // read requests in the driver's list as it stands
    bool readListStale_ = false;
    bool retryPending_ = false;  // the driver holds a frame to send again
    int reopenMs_;
    std::function<void(const QString &)> onPortChange_;
    std::function<void()> onTurn_;
    int maxAgeMs_;
    int attempts_;
    int replyTimeoutMs_;
    int quietMs_;
    bool portDown_ = false;
    QElapsedTimer portDownSince_;
    qint64 lastReopenMs_ = 0;
};

#endif  // MODBUS_ASCII_HOST_POLL_LOOP_H
