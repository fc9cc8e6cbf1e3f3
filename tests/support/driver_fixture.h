// SPDX-License-Identifier: MIT
// Test fixture: puts the one global driver object back into its freshly loaded state and
// attaches a ComInfo record and a callback recorder.
#ifndef MODBUS_TEST_DRIVER_FIXTURE_H
#define MODBUS_TEST_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <vector>

#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

struct CallbackRecord {
    int deviceId;
    int ownerType;
    int ownerId;
    int status;
    bool operator==(const CallbackRecord &o) const {
        return deviceId == o.deviceId && ownerType == o.ownerType && ownerId == o.ownerId &&
               status == o.status;
    }
};

inline std::vector<CallbackRecord> &RecordedCallbacks() {
    static std::vector<CallbackRecord> records;
    return records;
}

inline int RecordCallback(int deviceId, int ownerType, int ownerId, int status) {
    RecordedCallbacks().push_back({deviceId, ownerType, ownerId, status});
    return 0;
}

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetDriverObject();
        RecordedCallbacks().clear();
        info = ComInfo();
        info.maxFrameWords = 125;
        info.defaultStation = 1;
        info.retryLimit = 2;
        info.workMode = 2;
        info.deviceId = 7;
        info.requestParamA = 21;
        info.requestParamB = 22;
        SetComInfo(&info);
        RegistCallBackFuncIntf(&RecordCallback, 0);
    }
    void TearDown() override { ResetDriverObject(); }

    ComInfo info;
};

// A request record as a host would fill it.
inline RW_VAR MakeVar(const char *areaName, int address, int station, int count, int direction = 0,
                      QByteArray value = QByteArray()) {
    RW_VAR v;
    v.area = QString::fromLatin1(areaName);
    v.address = address;
    v.station = station;
    v.count = count;
    v.direction = direction;
    v.value = value;
    return v;
}

// Bytes from a list of small ints, for value arrays written out by hand.
inline QByteArray Bytes(std::initializer_list<int> list) {
    QByteArray out;
    for (int b : list) out.append(static_cast<char>(b));
    return out;
}

// A reply as a slave would send it: ':' + hex body + its LRC + CR LF. The LRC is computed
// here, independently of the driver's codec, from the hex body written out by the test.
inline QByteArray SlaveReply(const char *hexBody) {
    const QByteArray body(hexBody);
    unsigned int sum = 0;
    for (int i = 0; i + 1 < body.size(); i += 2) sum += body.mid(i, 2).toUInt(nullptr, 16);
    const unsigned int lrc = (0x100u - (sum & 0xFFu)) & 0xFFu;
    return ":" + body + QByteArray::number(lrc, 16).rightJustified(2, '0').toUpper() + "\r\n";
}

#endif  // MODBUS_TEST_DRIVER_FIXTURE_H
