// SPDX-License-Identifier: MIT
// The driver object, its registration functions and the poll scheduler.
#include "modbus_ascii_master.h"

#include <cstring>

#include "driver_internal.h"
#include "modbus_ascii_master_api.h"
#include "station_records.h"

namespace {

constexpr int kWriteListLimit = 1024;
constexpr int kBurstLimit = 4;  // a burst stops once more than this many were started

enum RequestKind { kCyclicRead = 0, kWrite = 1, kOnceRead = 2, kNoRequestYet = 100 };

}  // namespace

Modbus_ASCII_Master PLC_driver;

// The lists and `current` start empty as constructed; the image is zeroed.
Modbus_ASCII_Master::Modbus_ASCII_Master()
    : currentKind(kNoRequestYet), writeBurst(0), onceBurst(0), readCursor(0), linkFailed(0) {
    std::memset(coilArea, 0, sizeof coilArea);
    std::memset(inputBitArea, 0, sizeof inputBitArea);
    std::memset(inputRegArea, 0, sizeof inputRegArea);
    std::memset(holdingRegArea, 0, sizeof holdingRegArea);
}

Modbus_ASCII_Master::~Modbus_ASCII_Master() = default;

// ---- Registration ------------------------------------------------------------------------

void SetComInfo(ComInfo *info) {
    if (info != nullptr) {
        info->resetOnAttachA = 0;
        info->resetOnAttachB = 0;
    }
    PLC_driver.comInfo = info;
}

void FlashLocalRegister(int a0, int a1, int a2) {
    PLC_driver.localArg0 = a0;
    PLC_driver.localArg1 = a1;
    PLC_driver.localArg2 = a2;
}

void RegistCallBackFuncIntf(CallBackFunc func, int arg) {
    PLC_driver.callback = func;
    PLC_driver.callbackArg = arg;
}

// Configuration time only: takes no lock, deliberately.
int AddListReadVar(RW_VAR *var) {
    if (var != nullptr) PLC_driver.readList.append(*var);
    return PLC_driver.readList.size();
}

// A full list drops the request silently; the caller sees the length stay at 1024. So does a
// register write too long for any frame.
int AppendWriteRequest(const RW_VAR &var, bool *linkDown) {
    DriverLock lock(PLC_driver.listMutex);
    if (PLC_driver.writeList.size() < kWriteListLimit && !WriteTooLongForFrame(var)) {
        PLC_driver.writeList.append(var);
    }
    if (linkDown != nullptr) *linkDown = PLC_driver.linkFailed != 0;
    return PLC_driver.writeList.size();
}

int AddListWriteVar(RW_VAR *var) {
    if (var == nullptr) {
        DriverLock lock(PLC_driver.listMutex);
        return PLC_driver.writeList.size();
    }
    return AppendWriteRequest(*var, nullptr);
}

// ---- Poll scheduler ----------------------------------------------------------------------

// Reports a finished request unless the same owner still has requests queued behind it.
void quiryReadFinish(const QList<RW_VAR> &list) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (list.isEmpty()) return;
    const int ownerType = list.first().ownerType;
    const int ownerId = list.first().ownerId;
    for (int i = 1; i < list.size(); ++i) {
        if (list.at(i).ownerType == ownerType && list.at(i).ownerId == ownerId) return;
    }
    if (d.callback != nullptr) {
        d.callback(d.comInfo->deviceId, ownerType, ownerId, d.linkFailed ? 2 : 1);
    }
}

namespace {

// Builds the frames of the next eligible request; listMutex held.
void startNextRequest(Modbus_ASCII_Master &d) {
    if (!d.writeList.isEmpty() && d.writeBurst <= kBurstLimit) {
        d.currentKind = kWrite;
        WriteRegister(&d.writeList.first());
        d.writeBurst += 1;
    } else if (!d.onceReadList.isEmpty() && d.onceBurst <= kBurstLimit) {
        d.currentKind = kOnceRead;
        ReadRegister(&d.onceReadList.first());
        d.onceBurst += 1;
    } else if (!d.readList.isEmpty()) {
        d.currentKind = kCyclicRead;
        ReadRegister(&d.readList.first());
        d.writeBurst = 0;
        d.onceBurst = 0;
    } else {
        // Burst limit reached with no cyclic read, or nothing at all: one idle poll.
        d.writeBurst = 0;
        d.onceBurst = 0;
        d.comInfo->cycleDone = 1;
    }
}

// Takes the head of a write or once-read list off after its request finished into
// `current`; listMutex held. Moved rather than copied, so that the strings a host thread
// handed over are released in inline code that ThreadSanitizer sees, not inside Qt.
void retireHead(Modbus_ASCII_Master &d, QList<RW_VAR> &list) {
    quiryReadFinish(list);
    if (list.isEmpty()) return;
    d.current = list.takeFirst();
}

// Ends the request whose frames were in flight, by kind; listMutex held.
void finishRequest(Modbus_ASCII_Master &d) {
    switch (d.currentKind) {
        case kWrite:
            retireHead(d, d.writeList);
            break;
        case kOnceRead:
            retireHead(d, d.onceReadList);
            break;
        case kCyclicRead:
            // Rotated in place: no record is copied and nothing is allocated.
            if (d.readList.size() > 1) d.readList.move(0, d.readList.size() - 1);
            break;
        default:
            break;
    }
}

// Bookkeeping after an accepted reply; returns whether the request is complete.
bool acceptReply(Modbus_ASCII_Master &d) {
    ComInfo &info = *d.comInfo;
    d.linkFailed = 0;
    RemoveHeadFrame();
    info.framesDone += 1;
    if (info.framesDone < info.framesInRequest) return false;
    if (info.cycleDone == 0) {
        d.readCursor += 1;
        // Greater-than: the mark comes on the completion after the one equal to the length.
        if (d.readCursor > d.readList.size()) {
            d.readCursor = 0;
            info.cycleDone = 1;
        }
    }
    return true;
}

// Bookkeeping after a rejected reply; returns whether the request is abandoned.
bool rejectReply(Modbus_ASCII_Master &d) {
    ComInfo &info = *d.comInfo;
    d.readCursor = 0;
    info.cycleDone = 0;
    info.retryCount += 1;
    if (info.retryCount <= info.retryLimit) return false;
    info.retryCount = 0;
    d.sendList.clear();  // every queued frame, also those of other requests
    d.linkFailed = 1;
    return true;
}

// The host is handed the head frame as read without detaching sendList (see HeadFrame).
Protocol *headOfSendList() {
    return const_cast<Protocol *>(&HeadFrame());
}

}  // namespace

Protocol *ComCommunication(void) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (!d.sendList.isEmpty()) return headOfSendList();
    if (d.comInfo == nullptr) return nullptr;
    DriverLock lock(d.listMutex);
    startNextRequest(d);
    return d.sendList.isEmpty() ? nullptr : headOfSendList();
}

int DataCom(QByteArray *reply) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (d.comInfo == nullptr || d.sendList.isEmpty()) return 0;  // no frame is in flight
    QByteArray empty;
    QByteArray *received = reply != nullptr ? reply : &empty;
    // The store reads writeList, and the bookkeeping must not race with a host thread
    // rebuilding the read list: one hold of listMutex covers both.
    DriverLock lock(d.listMutex);
    const int result = DealDataOfLocalArea(received, received->size());
    const bool finished = result == 1 ? acceptReply(d) : rejectReply(d);
    if (!finished) return result == 1 ? 1 : 0;
    finishRequest(d);
    return result;
}
