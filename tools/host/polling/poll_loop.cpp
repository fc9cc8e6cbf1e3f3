// SPDX-License-Identifier: MIT
#include "poll_loop.h"

#include <QThread>
#include <ctime>
#include <vector>

namespace {

// How long to rest when the driver has nothing to send.
constexpr unsigned long kIdleMilliseconds = 5;

// Completions recorded by the callback, which runs inside DataCom with the driver's list lock
// held: it only records, and the loop reports them after DataCom has returned.
std::vector<Completion> &RecordedCompletions() {
    static std::vector<Completion> completions;
    return completions;
}

qint64 ThreadCpuNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<qint64>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace

int RecordCompletion(int deviceId, int ownerType, int ownerId, int status) {
    RecordedCompletions().push_back({deviceId, ownerType, ownerId, status});
    return 0;
}

LoopSettings LoopSettingsOf(const HostOptions &options) {
    LoopSettings settings;
    settings.trace = options.trace;
    settings.verbose = options.verbose;
    settings.sharedRetries = options.sharedRetries;
    settings.multiStation = options.multiStation;
    settings.reopenMs = options.reopenMs;
    settings.maxAgeMs = options.maxAgeMs;
    settings.attempts = options.retries + 1;
    // A value's age bound follows the waits as the link makes them, its delay included.
    settings.replyTimeoutMs = options.serial.replyDeadlineMs();
    settings.quietMs = options.serial.quietGapMs();
    return settings;
}

PollLoop::PollLoop(const DriverApi &api, ComInfo &comInfo, SerialLink &link,
                   const RunLimits &limits, WriteQueue &writes, const LoopSettings &settings)
    : api_(api),
      comInfo_(comInfo),
      link_(link),
      writes_(writes),
      limits_(limits),
      trace_(settings.trace && settings.observer != nullptr),
      verbose_(settings.verbose && settings.observer != nullptr),
      observer_(settings.observer),
      sharedRetries_(settings.sharedRetries),
      onTransaction_(settings.onTransaction),
      freshness_(settings.multiStation),
      demotion_(settings.demotion),
      polledGroups_(settings.polledGroups),
      rebuildReadList_(settings.rebuildReadList),
      onStationStanding_(settings.onStationStanding),
      listedReadRequests_(limits.readRequests),
      reopenMs_(settings.reopenMs),
      onPortChange_(settings.onPortChange),
      onTurn_(settings.onTurn),
      maxAgeMs_(settings.maxAgeMs),
      attempts_(settings.attempts),
      replyTimeoutMs_(settings.replyTimeoutMs),
      quietMs_(settings.quietMs) {
    link_.setStopCheck([this] { return stopNow(); });
    for (const ReadGroup &group : polledGroups_) polledStations_.insert(group.first);
    listedStations_ = polledStations_;
    setValueAgeBound();
}

void PollLoop::setValueAgeBound() {
    stats_.maxAgeMs = valueAgeBoundMs();
    freshness_.setMaxAgeMs(stats_.maxAgeMs);
}

qint64 PollLoop::valueAgeBoundMs() const {
    if (maxAgeMs_ > 0) return maxAgeMs_;
    return PassAgeBoundMs(listedReadRequests_, attempts_, replyTimeoutMs_, quietMs_);
}

void PollLoop::run(std::set<Owner> awaited, const std::function<void(qint64)> &onPass) {
    awaited_ = std::move(awaited);
    onPass_ = onPass;
    clock_.start();
    while (!finished()) {
        if (!serveOneFrame()) QThread::msleep(kIdleMilliseconds);
    }
    stats_.interrupted = StopRequested();
    if (portDown_) stats_.portDownMs += portDownSince_.elapsed();
}

// A stop signal, or the end of the time the run was given: both also end a wait on the line.
bool PollLoop::stopNow() const {
    if (StopRequested()) return true;
    return limits_.durationSeconds &&
           static_cast<double>(clock_.nsecsElapsed()) / 1e9 >= *limits_.durationSeconds;
}

bool PollLoop::finished() const {
    if (stopNow()) return true;
    if (!awaited_.empty() || !writes_.finished()) return false;
    // Without a read list there is no pass to wait for: the run is over with its writes and
    // one-shot reads, unless it was asked to last a given time.
    if (limits_.readRequests == 0) return !limits_.durationSeconds;
    return limits_.passes && stats_.passes >= *limits_.passes;
}

// One transaction; false when the driver had no frame to send.
bool PollLoop::serveOneFrame() {
    if (onTurn_) onTurn_();
    if (portDown_) return tryReopen();
    updateReadList();
    writes_.offer(api_);
    Protocol *protocol = nextFrame();
    if (protocol == nullptr) return false;
    // Copied now: DataCom may destroy the record the pointer refers to.
    SentFrame sent;
    sent.frame = protocol->frame.left(protocol->frameLength);
    sent.replyExpected = protocol->replyLength != 0;
    sent.cyclicRead = protocol->var.ownerType == 0 && protocol->var.ownerId == -1;
    sent.var = protocol->var;

    if (trace_) observer_->sent(clock_.nsecsElapsed(), sent.frame);
    freshness_.handedOut(sent.frame, sent.var);
    // A transaction the port went away in brought nothing: the driver sends it again or gives
    // it up; a write may have reached the slave and ends unconfirmed unless a retry is answered.
    Exchange exchange;
    try {
        exchange = link_.exchange(sent.frame, sent.replyExpected);
    } catch (const PortLost &lost) {
        notePortLost(lost.reason);
    }
    writes_.noteAttempt(sent.var, exchange);
    // Cut short by a stop: neither an answer nor a time-out, so the driver is not told.
    if (exchange.interrupted) {
        stats_.recordLine(exchange);
        return true;
    }
    const int result = deliverReply(exchange.reply);
    // Each request gets its own retries: the driver's count would go on across requests.
    if (result == 1 && !sharedRetries_) comInfo_.retryCount = 0;
    retryPending_ = result == 0;
    noteStanding(sent, exchange);
    stats_.record(result, exchange);
    freshness_.note(sent.frame, sent.var, result);
    stats_.health.record(sent.frame, result, exchange);
    stats_.echoMode = link_.echo().mode();
    stats_.echoFinding = link_.echo().finding();
    stats_.lateReplies = link_.lateReplies().figures();
    if (onTransaction_) onTransaction_(sent.frame, result, exchange);
    if (trace_) {
        if (exchange.echoFound) observer_->echoFound(clock_.nsecsElapsed(), link_.echo());
        for (const StrayFrame &stray : exchange.strays) {
            observer_->stray(clock_.nsecsElapsed(), stray);
        }
        observer_->received(clock_.nsecsElapsed(), exchange.reply, sent.replyExpected, result);
    }
    collectCompletions(result);
    countPass(sent, result);
    return true;
}

Protocol *PollLoop::nextFrame() {
    const qint64 before = ThreadCpuNanoseconds();
    Protocol *protocol = api_.comCommunication();
    stats_.driverCpuNanoseconds += ThreadCpuNanoseconds() - before;
    if (protocol == nullptr) takeDriverCycleMark(false);
    return protocol;
}

int PollLoop::deliverReply(QByteArray &reply) {
    const qint64 before = ThreadCpuNanoseconds();
    const int result = api_.dataCom(&reply);
    stats_.driverCpuNanoseconds += ThreadCpuNanoseconds() - before;
    takeDriverCycleMark(true);
    return result;
}

void PollLoop::collectCompletions(int result) {
    for (const Completion &completion : RecordedCompletions()) {
        if (writes_.ownsCompletion(completion)) {
            writes_.complete(completion, result);
        } else {
            awaited_.erase({completion.ownerType, completion.ownerId});
        }
        stats_.completions.push_back(completion);
        if (verbose_) observer_->completion(completion);
    }
    RecordedCompletions().clear();
}

// The host counts passes itself: one pass is as many finished cyclic reads (accepted, or
// abandoned after their retries) as the read list holds, since the driver rotates the list
// by one entry for each. Cyclic reads are the requests the driver built in
// ReCreatReadVarList: ownerType 0 and ownerId -1; the host gives its own requests other owners.
// The driver's own mark, ComInfo's cycleDone word, cannot serve as the pass count (see
// takeDriverCycleMark): every rejected reply restarts it, so while one polled station stays
// silent it is never set and a --cycles run would never end.
void PollLoop::countPass(const SentFrame &sent, int result) {
    if (!sent.cyclicRead || result == 0) return;
    ++cyclicDoneInPass_;
    endPassWhenDone();
}

void PollLoop::endPassWhenDone() {
    if (cyclicDoneInPass_ < listedReadRequests_) return;
    cyclicDoneInPass_ = 0;
    ++stats_.passes;
    onPass_(stats_.passes);
}

// Counts the attempt towards setting its station aside, or brings the station back. Writes and
// one-shot reads to a station set aside are still sent: each one probes it.
void PollLoop::noteStanding(const SentFrame &sent, const Exchange &exchange) {
    const int station = StationOfFrame(sent.frame);
    if (!rebuildReadList_ || !sent.replyExpected || station <= 0) return;
    // The last station that may still answer is never set aside: there is nobody to spare. A
    // station being probed has not shown that it answers.
    std::set<int> others = polledStations_;
    others.erase(station);
    for (auto it = demotion_.standings().cbegin(); it != demotion_.standings().cend(); ++it) {
        if (it.value().setAside || it.value().probing) others.erase(it.key());
    }
    const bool answered = !exchange.reply.isEmpty();
    if (!answered && others.empty() && !demotion_.standings()[station].probing) return;
    if (!demotion_.note(station, answered, clock_.elapsed())) return;
    readListStale_ = true;
    // Nobody reads a station set aside: what it said last is no longer vouched for.
    if (demotion_.standings()[station].setAside) freshness_.forgetStation(station);
    const QString standing = StandingText(demotion_.standings()[station]);
    stats_.health.setStanding(station, standing);
    if (onStationStanding_) onStationStanding_(station, standing);
}

// Hands the driver a new read list once no frame is held for a retry (the driver finishes the
// request it has started), in an order that keeps every request's turn in the pass
// (read_list_order.h). A station set aside leaves the list at once, so that its other requests
// cost no time; one brought back joins when a pass starts, so that new lists in the middle of a
// pass come no more often than stations are set aside. Called again at most once, from within,
// when the new list ends the pass.
void PollLoop::updateReadList() {
    if (!rebuildReadList_) return;
    if (demotion_.startProbes(clock_.elapsed())) {
        readListStale_ = true;
        for (auto it = demotion_.standings().cbegin(); it != demotion_.standings().cend(); ++it) {
            if (!it.value().probing) continue;
            stats_.health.setStanding(it.key(), StandingText(it.value()));
            if (onStationStanding_) onStationStanding_(it.key(), StandingText(it.value()));
        }
    }
    if (!readListStale_ || retryPending_) return;
    std::set<int> wanted;
    const std::set<int> &joinable = cyclicDoneInPass_ == 0 ? polledStations_ : listedStations_;
    for (int station : joinable) {
        if (demotion_.setAside().count(station) == 0) wanted.insert(station);
    }
    readListStale_ = wanted.size() + demotion_.setAside().size() < polledStations_.size();
    if (wanted == listedStations_) return;
    std::set<int> leftOut;
    for (int station : polledStations_) {
        if (wanted.count(station) == 0) leftOut.insert(station);
    }
    const ReadListOrder order = OrderForNewList(
        api_.driver->readList, listedReadRequests_ - cyclicDoneInPass_, polledGroups_, leftOut);
    listedReadRequests_ = rebuildReadList_(order.groups);
    listedStations_ = wanted;
    cyclicDoneInPass_ = ServedRequests(api_.driver->readList, order.served);
    setValueAgeBound();
    const bool passEnded = cyclicDoneInPass_ >= listedReadRequests_;
    endPassWhenDone();
    // A list whose due requests all left with the station set aside starts the next pass
    // itself: a station brought back joins that pass, not the one after.
    if (passEnded && readListStale_) updateReadList();
}

// No value is confirmed while the port is away, nor by what was read before it went.
void PollLoop::notePortLost(const QString &reason) {
    portDown_ = true;
    ++stats_.portLosses;
    portDownSince_.start();
    lastReopenMs_ = clock_.elapsed();
    freshness_.forgetAll();
    if (onPortChange_) {
        onPortChange_(
            QStringLiteral("lost (%1); reopening every %2 ms").arg(reason).arg(reopenMs_));
    }
}

// One attempt to reopen the port every reopenMs; true when it is back.
bool PollLoop::tryReopen() {
    if (clock_.elapsed() - lastReopenMs_ < reopenMs_) return false;
    lastReopenMs_ = clock_.elapsed();
    if (!link_.reopen()) return false;
    portDown_ = false;
    const qint64 awayMs = portDownSince_.elapsed();
    stats_.portDownMs += awayMs;
    if (onPortChange_) onPortChange_(QStringLiteral("back after %1 ms").arg(awayMs));
    return true;
}

// Watches ComInfo's cycleDone word as a runtime would, and clears it, as the host that owns
// ComInfo: the driver counts completed requests only while the word is 0. The driver sets it
// after a DataCom when more requests than the read list holds have completed since its last
// mark (writes and one-shot reads included), and on a poll that finds nothing to send; the
// latter means "idle", not a pass, and is cleared without being counted.
void PollLoop::takeDriverCycleMark(bool afterReply) {
    if (comInfo_.cycleDone != 1) return;
    comInfo_.cycleDone = 0;
    if (afterReply) ++stats_.driverCycleMarks;
}
