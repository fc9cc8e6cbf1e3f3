// SPDX-License-Identifier: MIT
// Poll turns of the fuzz host: replies of every kind, host calls while a frame is in flight,
// and the checks of frames, results, completions and what a reply may allocate.
#include "poll_session.h"

#include <algorithm>
#include <vector>

#include "frame_check.h"
#include "image_edges.h"
#include "modbus_ascii_master_api.h"
#include "station_edits.h"
#include "test_responder.h"

namespace fuzz {
namespace {

constexpr int kWriteKind = 1;
constexpr int kOnceReadKind = 2;
constexpr int kLongestBuiltReply = 1 << 13;

// The completion callbacks seen since the last reset.
struct Completion {
    int calls = 0;
    int deviceId = 0;
    int ownerType = 0;
    int ownerId = 0;
    int status = 0;
};
Completion completion;

int recordCompletion(int deviceId, int ownerType, int ownerId, int status) {
    // The callback runs with listMutex held: a non-recursive mutex can't be taken again.
    if (PLC_driver.listMutex.tryLock()) {
        PLC_driver.listMutex.unlock();
        Fail("the completion callback ran without listMutex");
    }
    completion.calls += 1;
    completion.deviceId = deviceId;
    completion.ownerType = ownerType;
    completion.ownerId = ownerId;
    completion.status = status;
    return 0;
}

bool isResultCode(int code) {
    return code == 0 || code == 1 || (code >= 11 && code <= 22) || (code >= 41 && code <= 52) ||
           (code >= 71 && code <= 82);
}

// The list a request of this kind is taken from, or null for cyclic reads.
const QList<RW_VAR> *listOfKind(int kind) {
    if (kind == kWriteKind) return &PLC_driver.writeList;
    if (kind == kOnceReadKind) return &PLC_driver.onceReadList;
    return nullptr;
}

// What DataCom must report through the callback: a finished write or one-shot read is
// reported once, unless its owner still has requests in the same list.
class CompletionExpectation {
public:
    CompletionExpectation() : list_(listOfKind(PLC_driver.currentKind)) {
        completion = Completion();
        if (list_ == nullptr || list_->isEmpty()) return;
        sizeBefore_ = list_->size();
        ownerType_ = list_->first().ownerType;
        ownerId_ = list_->first().ownerId;
    }

    void Check(int deviceId) const {
        const bool finished = list_ != nullptr && sizeBefore_ > 0 && list_->size() < sizeBefore_;
        bool ownerWaits = false;
        if (finished) {
            for (const RW_VAR &queued : *list_) {
                ownerWaits |= queued.ownerType == ownerType_ && queued.ownerId == ownerId_;
            }
        }
        if (!finished || ownerWaits) {
            if (completion.calls != 0) Fail("a completion was reported for an unfinished owner");
            return;
        }
        if (completion.calls != 1) Fail("a finished owner was not reported exactly once");
        const int status = PLC_driver.linkFailed ? 2 : 1;
        if (completion.deviceId != deviceId || completion.ownerType != ownerType_ ||
            completion.ownerId != ownerId_ || completion.status != status) {
            Fail("a completion carries the wrong device, owner or status");
        }
    }

private:
    const QList<RW_VAR> *list_;
    int sizeBefore_ = 0;
    int ownerType_ = 0;
    int ownerId_ = 0;
};

// The register value a function-06 write of `bit` must carry after the read half returned
// `read`: the bit set by a first value byte of 1, cleared by 0, else left as read.
unsigned int expectedBitWriteValue(unsigned int read, const RW_VAR &write) {
    if (write.value.isEmpty()) return read;
    const unsigned int mask = 1u << (write.address & 15);
    if (write.value.at(0) == 1) return read | mask;
    if (write.value.at(0) == 0) return read & ~mask;
    return read;
}

}  // namespace

PollSession::PollSession(InputReader &in, ComInfo &info) : in_(in), info_(info) {
    RegistCallBackFuncIntf(recordCompletion, 0);
}

PollSession::~PollSession() {
    RegistCallBackFuncIntf(nullptr, 0);
}

// A slave's answer to the frame (an echo of the header for writes, data of the expected
// length for reads), an exception, a damaged answer, framed noise or raw bytes.
QByteArray PollSession::ChooseReply(const QByteArray &frame, int replyLength) {
    std::vector<uint8_t> request;
    Decode(frame, request);
    std::vector<uint8_t> answer(request.begin(),
                                request.begin() + std::min<size_t>(6, request.size()));
    const bool read = answer.size() >= 2 && answer[1] >= 1 && answer[1] <= 4;
    if (read && replyLength >= 11 && replyLength <= kLongestBuiltReply) {
        answer.resize(2);
        const int dataBytes = (replyLength - 11) / 2;
        answer.push_back(static_cast<uint8_t>(dataBytes));
        for (int i = 0; i < dataBytes; ++i) answer.push_back(in_.byte());
    }
    const uint8_t pick = in_.byte();
    switch (pick % 6) {
        case 0:
            return QByteArray();
        case 1:
        case 2:
            return TestResponder::Encode(answer);
        case 3:
            answer.resize(2);
            answer[1] |= 0x80;
            answer.push_back(in_.byte());
            return TestResponder::Encode(answer);
        case 4: {
            QByteArray damaged = TestResponder::Encode(answer);
            damaged[in_.byte() % damaged.size()] = static_cast<char>(in_.byte());
            return damaged;
        }
        default:
            return in_.flag()
                       ? in_.bytes(48)
                       : TestResponder::Encode(std::vector<uint8_t>(in_.byte() % 40, in_.byte()));
    }
}

bool PollSession::Turn(bool silent) {
    Modbus_ASCII_Master &d = PLC_driver;
    const bool inFlight = !d.sendList.isEmpty();
    const ImageEdges beforeSend;
    Protocol *protocol = ComCommunication();
    CheckLimits();
    if (protocol == nullptr) {
        if (inFlight) Fail("a frame in flight was not handed out again");
        beforeSend.CheckOnlyTouched(-1);
        return false;
    }
    if (protocol != &d.sendList.first()) Fail("the frame handed out is not the first queued");
    beforeSend.CheckOnlyTouched(TableOfArea(protocol->var.area));
    const bool fromWrite = d.currentKind == kWriteKind;
    const QByteArray sent = protocol->frame;
    // A frame sent again is the one checked when it was first handed out.
    if (!inFlight || protocol != checked_ || sent != checkedFrame_) {
        CheckFrame(*protocol, fromWrite ? Builder::Write : Builder::Read);
        checked_ = protocol;
        checkedFrame_ = sent;
    }
    const int replyLength = protocol->replyLength;
    const bool readHalf = fromWrite && protocol->var.bitWriteMark == -1 &&
                          protocol->var.area == QLatin1String("4x_bit");

    // Other host threads work while the frame is on the line; the record stays put.
    while (!silent && !in_.atEnd() && in_.byte() % 4 == 0) AnyHostCall();
    if (d.sendList.isEmpty() || protocol != &d.sendList.first() || protocol->frame != sent) {
        Fail("the frame handed out moved or changed before DataCom");
    }

    const QByteArray given = silent ? QByteArray() : ChooseReply(sent, replyLength);
    QByteArray reply = given;
    const int replyTable = TableOfArea(protocol->var.area);
    const int recordsBefore = d.extendList.size();
    const CompletionExpectation expectation;
    const ImageEdges beforeReply;
    // Most turns of a run to completion are silent, and without a reply nothing is stored:
    // the check of the record count below is enough there.
    const StationRecordsWatch records(!given.isEmpty());
    const int result = DataCom(&reply);
    beforeReply.CheckOnlyTouched(replyTable);
    records.Check();
    if (!isResultCode(result)) Fail("DataCom returned an unknown code");
    if (reply != given) Fail("DataCom changed the reply");
    if (d.extendList.size() - recordsBefore > given.size() / 2) {
        Fail("a reply created more per-station records than it has data characters");
    }
    expectation.Check(info_.deviceId);
    CheckLimits();
    if (readHalf && result == 1) CheckBitWriteHalf(given);
    return true;
}

// After the read half of a bit-in-register write was accepted, the write half carries the
// register as read with the one bit changed.
void PollSession::CheckBitWriteHalf(const QByteArray &readReply) const {
    const Modbus_ASCII_Master &d = PLC_driver;
    std::vector<uint8_t> bytes;
    // Only replies of proper hex say what the driver read; others decode by its digit rule.
    if (!Decode(readReply, bytes) || bytes.size() != 6) return;
    if (d.sendList.size() != 1) Fail("the write half of a bit write is missing");
    const unsigned int read = static_cast<unsigned int>(bytes[3]) << 8 | bytes[4];
    const unsigned int written = WrittenRegisterValue(d.sendList.first().frame);
    if (written != expectedBitWriteValue(read, d.writeList.first())) {
        Fail("a bit write does not carry the register read with its bit changed");
    }
}

void PollSession::Poll(int turns) {
    for (int i = 0; i < turns && !in_.atEnd(); ++i) {
        if (in_.byte() % 3 == 0) AnyHostCall();
        Turn(false);
    }
}

void PollSession::PollToCompletion() {
    const Modbus_ASCII_Master &d = PLC_driver;
    auto stalled = [&] {
        // A bit-in-register write to the broadcast station queues no frame and stays at
        // the head of the write list, by design.
        return !d.writeList.isEmpty() && d.writeList.first().station == 0 &&
               d.writeList.first().area == QLatin1String("4x_bit");
    };
    auto finished = [&] {
        return d.onceReadList.isEmpty() && (d.writeList.isEmpty() || stalled());
    };
    // Each frame is sent at most retries + 1 times; a request has at most two frames, and
    // every burst of five writes and five one-shot reads lets one cyclic read or idle turn in.
    const long long attempts = std::max(info_.retryLimit, 0) + 1LL;
    const long long requests = d.writeList.size() + d.onceReadList.size() + d.sendList.size();
    const long long budget = (4 * requests + 8) * attempts + 16;
    for (long long turn = 0; turn < budget && !finished(); ++turn) Turn(true);
    if (!finished()) Fail("writes or one-shot reads were still queued after their retries");
}

}  // namespace fuzz
