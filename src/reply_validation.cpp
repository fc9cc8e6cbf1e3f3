// SPDX-License-Identifier: MIT
// Reply validation: the length a reply must have and its LRC, and the result codes that
// tell the host why a reply was refused.
#include <QByteArray>

#include "driver_internal.h"
#include "modbus_ascii_master.h"

namespace {

constexpr int kCheckInvalid = 0;
constexpr int kCheckStore = 1;
constexpr int kCheckNothingToStore = 2;

constexpr int kAccepted = 1;
constexpr int kContentInvalid = 11;
constexpr int kNoReply = 41;
constexpr int kWrongLength = 71;

}  // namespace

int DealDataOfLocalArea(QByteArray *reply, int length) {
    Modbus_ASCII_Master &d = PLC_driver;
    if (d.sendList.isEmpty()) return kContentInvalid;
    const Protocol &head = HeadFrame();
    const int ownerType = head.var.ownerType;
    const int k = ownerType >= 1 && ownerType <= 11 ? ownerType : 0;
    if (length == 0) {
        if (head.replyLength != 0) return kNoReply + k;
    } else if (length != head.replyLength && head.replyLength != -1) {
        // The expected length alone tells a normal reply from an exception reply.
        return kWrongLength + k;
    }
    const int check = CheckGetData(reply, length);
    if (check == kCheckStore) {
        DriverLock image(d.imageMutex);
        SaveToLocalDataErea(reply);
        return kAccepted;
    }
    return check == kCheckNothingToStore ? kAccepted : kContentInvalid + k;
}

int CheckGetData(QByteArray *reply, int length) {
    if (PLC_driver.sendList.isEmpty()) return kCheckInvalid;
    const Protocol &head = HeadFrame();
    if (head.var.station == 0 && length == 0) return kCheckNothingToStore;
    if (qint64(length) - 2 > reply->size()) return kCheckInvalid;
    if (!ReplyLrcMatches(*reply, length)) return kCheckInvalid;
    if (head.var.direction == 0) return kCheckStore;
    if (head.var.direction == 1) return kCheckNothingToStore;
    return kCheckInvalid;
}
