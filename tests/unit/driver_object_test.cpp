// SPDX-License-Identifier: MIT
// The records that cross the host interface and the driver object: construction, the host's
// communication record, registration and the two queueing functions of configuration time.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "driver_fixture.h"
#include "driver_internal.h"

namespace {

QByteArray HeapBytes(const char *text) {
    return QByteArray(text, static_cast<int>(std::strlen(text)));
}
QString HeapString(const char *text) {
    return QString::fromLatin1(text);
}

// ---- Records ------------------------------------------------------------------------------

TEST(VariableRecord, StartsWithZerosAndEmptyText) {
    const RW_VAR var;
    EXPECT_EQ(var.ownerType, 0);
    EXPECT_EQ(var.ownerId, 0);
    EXPECT_EQ(var.direction, 0);
    EXPECT_EQ(var.hostParamA, 0);
    EXPECT_EQ(var.hostParamB, 0);
    EXPECT_EQ(var.hostParamC, 0);
    EXPECT_TRUE(var.area.isEmpty());
    EXPECT_TRUE(var.auxName.isEmpty());
    EXPECT_EQ(var.hostParamD, 0);
    EXPECT_EQ(var.address, 0);
    EXPECT_EQ(var.station, 0);
    EXPECT_EQ(var.count, 0);
    EXPECT_EQ(var.bitWriteMark, 0);
    EXPECT_EQ(var.extraB, 0);
    EXPECT_TRUE(var.value.isEmpty());
}

TEST(VariableRecord, FieldsKeepTheirOrder) {
    EXPECT_LT(offsetof(RW_VAR, ownerType), offsetof(RW_VAR, ownerId));
    EXPECT_LT(offsetof(RW_VAR, ownerId), offsetof(RW_VAR, direction));
    EXPECT_LT(offsetof(RW_VAR, direction), offsetof(RW_VAR, hostParamA));
    EXPECT_LT(offsetof(RW_VAR, hostParamA), offsetof(RW_VAR, hostParamB));
    EXPECT_LT(offsetof(RW_VAR, hostParamB), offsetof(RW_VAR, hostParamC));
    EXPECT_LT(offsetof(RW_VAR, hostParamC), offsetof(RW_VAR, area));
    EXPECT_LT(offsetof(RW_VAR, area), offsetof(RW_VAR, auxName));
    EXPECT_LT(offsetof(RW_VAR, auxName), offsetof(RW_VAR, hostParamD));
    EXPECT_LT(offsetof(RW_VAR, hostParamD), offsetof(RW_VAR, address));
    EXPECT_LT(offsetof(RW_VAR, address), offsetof(RW_VAR, station));
    EXPECT_LT(offsetof(RW_VAR, station), offsetof(RW_VAR, count));
    EXPECT_LT(offsetof(RW_VAR, count), offsetof(RW_VAR, bitWriteMark));
    EXPECT_LT(offsetof(RW_VAR, bitWriteMark), offsetof(RW_VAR, extraB));
    EXPECT_LT(offsetof(RW_VAR, extraB), offsetof(RW_VAR, value));
    EXPECT_EQ(offsetof(RW_VAR, ownerType), 0u);
}

TEST(FrameRecord, FieldsKeepTheirOrder) {
    EXPECT_EQ(offsetof(Protocol, frame), 0u);
    EXPECT_LT(offsetof(Protocol, frame), offsetof(Protocol, frameLength));
    EXPECT_LT(offsetof(Protocol, frameLength), offsetof(Protocol, replyLength));
    EXPECT_LT(offsetof(Protocol, replyLength), offsetof(Protocol, replyDataStart));
    EXPECT_LT(offsetof(Protocol, replyDataStart), offsetof(Protocol, replyDataLength));
    EXPECT_LT(offsetof(Protocol, replyDataLength), offsetof(Protocol, var));
    EXPECT_LT(offsetof(Protocol, var), offsetof(Protocol, reserved1));
    EXPECT_LT(offsetof(Protocol, reserved1), offsetof(Protocol, reserved2));
    EXPECT_LT(offsetof(Protocol, reserved2), offsetof(Protocol, reserved3));
    EXPECT_EQ(offsetof(Protocol, frameLength), sizeof(QByteArray));
}

TEST(StationRecord, FieldsKeepTheirOrder) {
    EXPECT_EQ(offsetof(EXTENDVAR, station), 0u);
    EXPECT_LT(offsetof(EXTENDVAR, station), offsetof(EXTENDVAR, area));
    EXPECT_LT(offsetof(EXTENDVAR, area), offsetof(EXTENDVAR, address));
    EXPECT_LT(offsetof(EXTENDVAR, address), offsetof(EXTENDVAR, data));
}

TEST(PolledVariableRecord, FieldsKeepTheirOrder) {
    EXPECT_EQ(offsetof(Keyboard, keyName), 0u);
    EXPECT_EQ(offsetof(Keyboard, keyByte0), sizeof(QString));
    EXPECT_EQ(offsetof(Keyboard, keyByte1), sizeof(QString) + 1);
    EXPECT_EQ(offsetof(Keyboard, station), sizeof(QString) + 2);
    EXPECT_EQ(offsetof(Keyboard, keyByte3), sizeof(QString) + 3);
    EXPECT_LT(offsetof(Keyboard, keyByte3), offsetof(Keyboard, keyText));
    EXPECT_LT(offsetof(Keyboard, keyText), offsetof(Keyboard, auxName));
    EXPECT_LT(offsetof(Keyboard, auxName), offsetof(Keyboard, area));
    EXPECT_LT(offsetof(Keyboard, area), offsetof(Keyboard, length));
    EXPECT_LT(offsetof(Keyboard, length), offsetof(Keyboard, keyParam));
    EXPECT_LT(offsetof(Keyboard, keyParam), offsetof(Keyboard, address));
}

struct ComInfoWord {
    const char *name;
    size_t offset;
    size_t word;
};

class CommunicationRecordWord : public ::testing::TestWithParam<ComInfoWord> {};

TEST_P(CommunicationRecordWord, SitsAtItsWordPosition) {
    EXPECT_EQ(GetParam().offset, GetParam().word * 4);
}

const ComInfoWord kComInfoWords[] = {
    {"maxFrameWords", offsetof(ComInfo, maxFrameWords), 4},
    {"defaultStation", offsetof(ComInfo, defaultStation), 6},
    {"retryLimit", offsetof(ComInfo, retryLimit), 7},
    {"retryCount", offsetof(ComInfo, retryCount), 8},
    {"multiStation", offsetof(ComInfo, multiStation), 9},
    {"resetOnAttachA", offsetof(ComInfo, resetOnAttachA), 10},
    {"framesInRequest", offsetof(ComInfo, framesInRequest), 11},
    {"framesDone", offsetof(ComInfo, framesDone), 12},
    {"resetOnAttachB", offsetof(ComInfo, resetOnAttachB), 13},
    {"requestParamA", offsetof(ComInfo, requestParamA), 14},
    {"requestParamB", offsetof(ComInfo, requestParamB), 15},
    {"workMode", offsetof(ComInfo, workMode), 16},
    {"cycleDone", offsetof(ComInfo, cycleDone), 17},
    {"deviceId", offsetof(ComInfo, deviceId), 18},
};

INSTANTIATE_TEST_SUITE_P(Records, CommunicationRecordWord, ::testing::ValuesIn(kComInfoWords),
                         [](const ::testing::TestParamInfo<ComInfoWord> &info) {
                             return std::string(info.param.name);
                         });

TEST(CommunicationRecord, IsABlockOf32BitWords) {
    EXPECT_EQ(sizeof(int), 4u);
    EXPECT_EQ(sizeof(ComInfo), 19u * 4u);
}

TEST(FrameRecordCopy, RemovalFromAListReleasesEveryTextOfTheCopy) {
    Protocol p;
    p.frame = HeapBytes(":010300000001FB\r\n");
    p.frameLength = 17;
    p.var.area = HeapString("4x");
    p.var.auxName = HeapString("aux");
    p.var.value = HeapBytes("\x01\x02");
    ASSERT_TRUE(p.frame.isDetached());
    ASSERT_TRUE(p.var.area.isDetached());

    QList<Protocol> list;
    list.append(p);
    EXPECT_TRUE(p.frame.isSharedWith(list.first().frame));
    EXPECT_TRUE(p.var.area.isSharedWith(list.first().var.area));
    EXPECT_TRUE(p.var.auxName.isSharedWith(list.first().var.auxName));
    EXPECT_TRUE(p.var.value.isSharedWith(list.first().var.value));
    EXPECT_FALSE(p.frame.isDetached());

    list.removeFirst();
    EXPECT_TRUE(p.frame.isDetached());
    EXPECT_TRUE(p.var.area.isDetached());
    EXPECT_TRUE(p.var.auxName.isDetached());
    EXPECT_TRUE(p.var.value.isDetached());
    EXPECT_EQ(p.frame, QByteArray(":010300000001FB\r\n"));
    EXPECT_EQ(p.var.value, QByteArray("\x01\x02"));
}

TEST(FrameRecordCopy, ListKeepsItsCopyWhenTheOriginalChanges) {
    Protocol p;
    p.frame = HeapBytes(":01");
    p.var.station = 4;
    QList<Protocol> list;
    list.append(p);
    p.frame[1] = '9';
    p.var.station = 5;
    p.frameLength = 99;
    EXPECT_EQ(list.first().frame, QByteArray(":01"));
    EXPECT_EQ(list.first().var.station, 4);
    EXPECT_EQ(list.first().frameLength, 0);
}

// ---- The driver object --------------------------------------------------------------------

TEST(DriverObjectConstruction, StartsIdleWithEmptyListsAndAZeroImage) {
    // Fill the memory first so that zeros can only come from the constructor.
    void *memory = ::operator new(sizeof(Modbus_ASCII_Master));
    std::memset(memory, 0xA5, sizeof(Modbus_ASCII_Master));
    Modbus_ASCII_Master *d = new (memory) Modbus_ASCII_Master();

    EXPECT_TRUE(d->readList.isEmpty());
    EXPECT_TRUE(d->writeList.isEmpty());
    EXPECT_TRUE(d->onceReadList.isEmpty());
    EXPECT_TRUE(d->spareList.isEmpty());
    EXPECT_TRUE(d->sendList.isEmpty());
    EXPECT_TRUE(d->extendList.isEmpty());
    EXPECT_TRUE(d->current.area.isEmpty());
    EXPECT_TRUE(d->current.auxName.isEmpty());
    EXPECT_TRUE(d->current.value.isEmpty());
    EXPECT_EQ(d->currentKind, 100);
    EXPECT_EQ(d->writeBurst, 0);
    EXPECT_EQ(d->onceBurst, 0);
    EXPECT_EQ(d->readCursor, 0);
    EXPECT_EQ(d->linkFailed, 0);
    const QByteArray zeroBits(8193, '\0');
    const QByteArray zeroWords(0x20000, '\0');
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(d->coilArea), 8193), zeroBits);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(d->inputBitArea), 8193), zeroBits);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(d->inputRegArea), 0x20000), zeroWords);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(d->holdingRegArea), 0x20000), zeroWords);

    // Both mutexes are usable and not recursive.
    EXPECT_TRUE(d->listMutex.tryLock());
    EXPECT_FALSE(d->listMutex.tryLock());
    d->listMutex.unlock();
    EXPECT_TRUE(d->imageMutex.tryLock());
    EXPECT_FALSE(d->imageMutex.tryLock());
    d->imageMutex.unlock();

    d->~Modbus_ASCII_Master();
    ::operator delete(memory);
}

TEST(DriverObjectConstruction, SecondObjectOnTheHeapIsIndependentOfTheGlobalOne) {
    std::unique_ptr<Modbus_ASCII_Master> d(new Modbus_ASCII_Master);
    RW_VAR var = MakeVar("4x", 0, 1, 1);
    d->readList.append(var);
    d->holdingRegArea[0] = 0x1234;
    EXPECT_NE(d.get(), &PLC_driver);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(PLC_driver.holdingRegArea[0], 0);
    EXPECT_EQ(sizeof d->coilArea, 8193u);
    EXPECT_EQ(sizeof d->inputBitArea, 8193u);
    EXPECT_EQ(sizeof d->inputRegArea, 0x20000u);
    EXPECT_EQ(sizeof d->holdingRegArea, 0x20000u);
}

using Registration = DriverTest;

TEST_F(Registration, AttachingTheRecordZeroesOnlyItsTwoResetWords) {
    ComInfo other;
    int *words = reinterpret_cast<int *>(&other);
    for (int w = 0; w < 19; ++w) words[w] = 1000 + w;

    SetComInfo(&other);

    EXPECT_EQ(PLC_driver.comInfo, &other);
    for (int w = 0; w < 19; ++w) {
        SCOPED_TRACE(w);
        EXPECT_EQ(words[w], (w == 10 || w == 13) ? 0 : 1000 + w);
    }
    EXPECT_EQ(other.resetOnAttachA, 0);
    EXPECT_EQ(other.resetOnAttachB, 0);
}

TEST_F(Registration, LaterBookkeepingGoesToTheNewRecord) {
    ComInfo other;
    other.resetOnAttachA = 3;
    other.resetOnAttachB = 4;
    other.framesDone = 6;
    other.framesInRequest = 7;
    info.framesDone = 8;
    info.framesInRequest = 9;

    SetComInfo(&other);
    RW_VAR var = MakeVar("4x", 0, 1, 1);
    ReadRegister(&var);

    EXPECT_EQ(other.framesDone, 0);
    EXPECT_EQ(other.framesInRequest, 1);
    EXPECT_EQ(info.framesDone, 8);
    EXPECT_EQ(info.framesInRequest, 9);
    EXPECT_EQ(other.resetOnAttachA, 0);
    EXPECT_EQ(other.resetOnAttachB, 0);
}

TEST_F(Registration, LocalRegisterValuesAreStored) {
    FlashLocalRegister(1, 2, 3);
    EXPECT_EQ(PLC_driver.localArg0, 1);
    EXPECT_EQ(PLC_driver.localArg1, 2);
    EXPECT_EQ(PLC_driver.localArg2, 3);
    FlashLocalRegister(-7, 0, 2147483647);
    EXPECT_EQ(PLC_driver.localArg0, -7);
    EXPECT_EQ(PLC_driver.localArg1, 0);
    EXPECT_EQ(PLC_driver.localArg2, 2147483647);
    EXPECT_EQ(PLC_driver.comInfo, &info);
}

int OtherCallback(int, int, int, int) {
    return 5;
}

TEST_F(Registration, CallbackAndItsValueAreStored) {
    RegistCallBackFuncIntf(&OtherCallback, 77);
    EXPECT_EQ(PLC_driver.callback, &OtherCallback);
    EXPECT_EQ(PLC_driver.callbackArg, 77);
    RegistCallBackFuncIntf(nullptr, -1);
    EXPECT_EQ(PLC_driver.callback, nullptr);
    EXPECT_EQ(PLC_driver.callbackArg, -1);
    EXPECT_TRUE(RecordedCallbacks().empty());
}

TEST_F(Registration, ReadVariablesAreCountedOneByOne) {
    for (int i = 1; i <= 5; ++i) {
        RW_VAR var = MakeVar("4x", i * 10, 1, 1);
        var.ownerId = i;
        EXPECT_EQ(AddListReadVar(&var), i);
    }
    ASSERT_EQ(PLC_driver.readList.size(), 5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(PLC_driver.readList.at(i).ownerId, i + 1);
        EXPECT_EQ(PLC_driver.readList.at(i).address, (i + 1) * 10);
    }
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Registration, ReadVariableIsCopied) {
    RW_VAR var = MakeVar("4x", 5, 1, 1, 0, HeapBytes("\x11\x22"));
    var.auxName = HeapString("aux");
    AddListReadVar(&var);
    var.address = 6;
    var.area = HeapString("3x");
    var.value[0] = '\x33';
    var.auxName[0] = QLatin1Char('b');

    const RW_VAR &copy = PLC_driver.readList.first();
    EXPECT_EQ(copy.address, 5);
    EXPECT_EQ(copy.area, QString::fromLatin1("4x"));
    EXPECT_EQ(copy.value, QByteArray("\x11\x22"));
    EXPECT_EQ(copy.auxName, QString::fromLatin1("aux"));
}

TEST_F(Registration, WriteRequestsAreCountedOneByOne) {
    for (int i = 1; i <= 3; ++i) {
        RW_VAR var = MakeVar("4x", i, 1, 1, 1, Bytes({i, 0}));
        EXPECT_EQ(AddListWriteVar(&var), i);
    }
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(PLC_driver.writeList.at(2).address, 3);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(Registration, WriteListHoldsAtMost1024Requests) {
    for (int i = 1; i <= 1024; ++i) {
        RW_VAR var = MakeVar("4x", i, 1, 1, 1, Bytes({1, 0}));
        var.ownerId = i;
        ASSERT_EQ(AddListWriteVar(&var), i);
    }
    RW_VAR extra = MakeVar("0x", 77, 2, 1, 1, Bytes({1}));
    extra.ownerId = 1025;
    EXPECT_EQ(AddListWriteVar(&extra), 1024);
    EXPECT_EQ(AddListWriteVar(&extra), 1024);

    ASSERT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.writeList.first().ownerId, 1);
    EXPECT_EQ(PLC_driver.writeList.last().ownerId, 1024);
    EXPECT_EQ(PLC_driver.writeList.last().address, 1024);
    EXPECT_EQ(PLC_driver.writeList.last().area, QString::fromLatin1("4x"));
    EXPECT_TRUE(PLC_driver.listMutex.tryLock());
    PLC_driver.listMutex.unlock();
}

TEST_F(Registration, NullWriteRequestIsNotQueuedButCounted) {
    RW_VAR var = MakeVar("4x", 5, 1, 1, 1, Bytes({1, 0}));
    AddListWriteVar(&var);
    AddListWriteVar(&var);

    EXPECT_EQ(AddListWriteVar(nullptr), 2);
    EXPECT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_TRUE(PLC_driver.listMutex.tryLock());
    PLC_driver.listMutex.unlock();
}

TEST_F(Registration, WriteRequestIsCopied) {
    RW_VAR var = MakeVar("4x", 5, 1, 1, 1, HeapBytes("\x11\x22"));
    AddListWriteVar(&var);
    var.value[0] = '\x33';
    var.count = 9;
    EXPECT_EQ(PLC_driver.writeList.first().value, QByteArray("\x11\x22"));
    EXPECT_EQ(PLC_driver.writeList.first().count, 1);
    EXPECT_EQ(var.value, QByteArray("\x33\x22"));
}

TEST_F(Registration, WriteRequestWaitsForTheListLock) {
    RW_VAR var = MakeVar("4x", 5, 1, 1, 1, Bytes({1, 0}));
    std::atomic<int> result{-1};
    PLC_driver.listMutex.lock();
    std::thread writer([&] { result = AddListWriteVar(&var); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(result.load(), -1);
    PLC_driver.listMutex.unlock();
    writer.join();
    EXPECT_EQ(result.load(), 1);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
}

TEST_F(Registration, ReadVariableTakesNoLock) {
    RW_VAR var = MakeVar("4x", 5, 1, 1);
    std::atomic<int> result{-1};
    PLC_driver.listMutex.lock();
    std::thread reader([&] { result = AddListReadVar(&var); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (result.load() == -1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const int whileLocked = result.load();
    PLC_driver.listMutex.unlock();
    reader.join();
    EXPECT_EQ(whileLocked, 1);
}

}  // namespace
