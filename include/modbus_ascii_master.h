// SPDX-License-Identifier: MIT
// Records that cross the host interface and the driver object that owns all state.
// Hosts are compiled against these layouts: field order and types must not change.
#ifndef MODBUS_ASCII_MASTER_H
#define MODBUS_ASCII_MASTER_H

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <cstddef>
#include <memory>

#if defined(MODBUS_ASCII_MASTER_BUILD)
#define MODBUS_ASCII_EXPORT __attribute__((visibility("default")))
#else
#define MODBUS_ASCII_EXPORT
#endif

// One variable or one request, as the host hands it over and as the driver queues it.
struct RW_VAR {
    int ownerType = 0;
    int ownerId = 0;
    int direction = 0;  // 0 read, 1 write
    int hostParamA = 0;
    int hostParamB = 0;
    int hostParamC = 0;
    QString area;
    QString auxName;
    int hostParamD = 0;
    int address = 0;
    int station = 0;
    int count = 0;  // registers, or bytes of bits for "0x"/"1x"
    int bitWriteMark = 0;
    int extraB = 0;
    QByteArray value;
};

// One encoded frame waiting to be sent, with what is expected back.
struct Protocol {
    QByteArray frame;
    int frameLength = 0;
    int replyLength = 0;  // 0: no reply expected; -1: any length
    int replyDataStart = 0;
    int replyDataLength = 0;
    RW_VAR var;
    int reserved1 = 0;
    int reserved2 = 0;
    int reserved3 = 0;
};

// Per-station data block of the multi-station cache.
struct EXTENDVAR {
    int station = 0;
    QString area;
    int address = 0;
    QByteArray data;
};

// The host's description of one polled variable.
struct Keyboard {
    QString keyName;
    unsigned char keyByte0 = 0;
    unsigned char keyByte1 = 0;
    unsigned char station = 0;
    unsigned char keyByte3 = 0;
    QString keyText;
    QString auxName;
    QString area;
    int length = 0;
    int keyParam = 0;
    int address = 0;
};

// The host's communication-settings record: 19 consecutive 32-bit words.
struct ComInfo {
    int hostWord0 = 0;
    int hostWord1 = 0;
    int hostWord2 = 0;
    int hostWord3 = 0;
    int maxFrameWords = 0;
    int hostWord5 = 0;
    int defaultStation = 0;
    int retryLimit = 0;
    int retryCount = 0;
    int multiStation = 0;
    int resetOnAttachA = 0;
    int framesInRequest = 0;
    int framesDone = 0;
    int resetOnAttachB = 0;
    int requestParamA = 0;
    int requestParamB = 0;
    int workMode = 0;
    int cycleDone = 0;
    int deviceId = 0;
};

static_assert(sizeof(int) == 4, "ComInfo is a block of 32-bit words");
static_assert(sizeof(ComInfo) == 19 * 4, "ComInfo has 19 words");
static_assert(offsetof(ComInfo, hostWord0) == 0 * 4, "word 0");
static_assert(offsetof(ComInfo, hostWord1) == 1 * 4, "word 1");
static_assert(offsetof(ComInfo, hostWord2) == 2 * 4, "word 2");
static_assert(offsetof(ComInfo, hostWord3) == 3 * 4, "word 3");
static_assert(offsetof(ComInfo, maxFrameWords) == 4 * 4, "word 4");
static_assert(offsetof(ComInfo, hostWord5) == 5 * 4, "word 5");
static_assert(offsetof(ComInfo, defaultStation) == 6 * 4, "word 6");
static_assert(offsetof(ComInfo, retryLimit) == 7 * 4, "word 7");
static_assert(offsetof(ComInfo, retryCount) == 8 * 4, "word 8");
static_assert(offsetof(ComInfo, multiStation) == 9 * 4, "word 9");
static_assert(offsetof(ComInfo, resetOnAttachA) == 10 * 4, "word 10");
static_assert(offsetof(ComInfo, framesInRequest) == 11 * 4, "word 11");
static_assert(offsetof(ComInfo, framesDone) == 12 * 4, "word 12");
static_assert(offsetof(ComInfo, resetOnAttachB) == 13 * 4, "word 13");
static_assert(offsetof(ComInfo, requestParamA) == 14 * 4, "word 14");
static_assert(offsetof(ComInfo, requestParamB) == 15 * 4, "word 15");
static_assert(offsetof(ComInfo, workMode) == 16 * 4, "word 16");
static_assert(offsetof(ComInfo, cycleDone) == 17 * 4, "word 17");
static_assert(offsetof(ComInfo, deviceId) == 18 * 4, "word 18");

typedef int (*CallBackFunc)(int deviceId, int ownerType, int ownerId, int status);

// The index of the per-station records (src/station_records.h); hosts never touch it.
struct StationIndex;

// The driver object: all state of the driver. Its one instance is PLC_driver.
class Modbus_ASCII_Master {
public:
    Modbus_ASCII_Master();
    ~Modbus_ASCII_Master();
    Modbus_ASCII_Master(const Modbus_ASCII_Master &) = delete;
    Modbus_ASCII_Master &operator=(const Modbus_ASCII_Master &) = delete;

    int localArg0 = 0;
    int localArg1 = 0;
    int localArg2 = 0;
    ComInfo *comInfo = nullptr;
    QList<RW_VAR> readList;
    QList<RW_VAR> writeList;
    QList<RW_VAR> onceReadList;
    QList<RW_VAR> spareList;
    QList<Protocol> sendList;
    QList<EXTENDVAR> extendList;
    CallBackFunc callback = nullptr;
    int callbackArg = 0;
    QMutex listMutex;
    QMutex imageMutex;
    RW_VAR current;
    int currentKind;
    int writeBurst;
    int onceBurst;
    int readCursor;
    unsigned char linkFailed;
    unsigned char coilArea[8193];
    unsigned char inputBitArea[8193];
    unsigned short inputRegArea[65536];
    unsigned short holdingRegArea[65536];

    // Where each per-station record lies in extendList; built on first use.
    std::unique_ptr<StationIndex> extendIndex;
};

extern MODBUS_ASCII_EXPORT Modbus_ASCII_Master PLC_driver;

#endif  // MODBUS_ASCII_MASTER_H
