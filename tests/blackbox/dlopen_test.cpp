// SPDX-License-Identifier: MIT
// The host loader's view of the library: it is opened by file name with dlopen, the
// interface is resolved by name with dlsym, and nothing else is visible.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <string>

#include "modbus_ascii_master.h"

namespace {

using SetComInfoFn = void (*)(ComInfo *);
using FlashLocalRegisterFn = void (*)(int, int, int);
using RegistCallBackFuncIntfFn = void (*)(CallBackFunc, int);
using AddListReadVarFn = int (*)(RW_VAR *);
using GetRegisterDataFn = int (*)(const QString &, int, int, QByteArray &, int);

// What the driver object looked like right after the library was first loaded.
struct FreshState {
    bool readListEmpty = false;
    bool writeListEmpty = false;
    bool onceReadListEmpty = false;
    bool sendListEmpty = false;
    bool extendListEmpty = false;
    int currentKind = -1;
    int readCursor = -1;
    int linkFailed = -1;
    int localArg0 = -1;
    bool comInfoNull = false;
    bool callbackNull = false;
    bool imageZero = false;
};

struct Library {
    void *handle = nullptr;
    std::string error;
    FreshState fresh;
};

bool AllZero(const void *memory, size_t size) {
    const unsigned char *bytes = static_cast<const unsigned char *>(memory);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

// Opened once per process; the first look at PLC_driver is taken before any call.
Library &LoadedLibrary() {
    static Library library = [] {
        Library lib;
        lib.handle = dlopen(MODBUS_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        if (lib.handle == nullptr) {
            const char *error = dlerror();
            lib.error = error != nullptr ? error : "unknown dlopen error";
            return lib;
        }
        auto *d = static_cast<Modbus_ASCII_Master *>(dlsym(lib.handle, "PLC_driver"));
        if (d != nullptr) {
            lib.fresh.readListEmpty = d->readList.isEmpty();
            lib.fresh.writeListEmpty = d->writeList.isEmpty();
            lib.fresh.onceReadListEmpty = d->onceReadList.isEmpty();
            lib.fresh.sendListEmpty = d->sendList.isEmpty();
            lib.fresh.extendListEmpty = d->extendList.isEmpty();
            lib.fresh.currentKind = d->currentKind;
            lib.fresh.readCursor = d->readCursor;
            lib.fresh.linkFailed = d->linkFailed;
            lib.fresh.localArg0 = d->localArg0;
            lib.fresh.comInfoNull = d->comInfo == nullptr;
            lib.fresh.callbackNull = d->callback == nullptr;
            lib.fresh.imageZero = AllZero(d->coilArea, sizeof d->coilArea) &&
                                  AllZero(d->inputBitArea, sizeof d->inputBitArea) &&
                                  AllZero(d->inputRegArea, sizeof d->inputRegArea) &&
                                  AllZero(d->holdingRegArea, sizeof d->holdingRegArea);
        }
        return lib;
    }();
    return library;
}

template <typename T>
T Resolve(const char *name) {
    return reinterpret_cast<T>(dlsym(LoadedLibrary().handle, name));
}

class LoadedDriver : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(LoadedLibrary().handle, nullptr) << LoadedLibrary().error; }
};

TEST_F(LoadedDriver, LibraryFileIsTheVersionedSoname) {
    const std::string path = MODBUS_LIBRARY_PATH;
    const std::string soname = "libModbus_ASCII_Master.so.1";
    ASSERT_GE(path.size(), soname.size());
    EXPECT_EQ(path.substr(path.size() - soname.size()), soname);
}

const char *const kInterface[] = {
    "PLC_driver",       "SetComInfo",      "FlashLocalRegister", "RegistCallBackFuncIntf",
    "AddListReadVar",   "AddListWriteVar", "AddListOnceReadVar", "ReCreatReadVarList",
    "ComCommunication", "DataCom",         "GetRegisterData",    "SetRegisterData",
    "CheckAddrCorrect", "AddrStringToInt", "AddrMutilCopy",
};

TEST_F(LoadedDriver, EveryInterfaceNameResolves) {
    for (const char *name : kInterface) {
        SCOPED_TRACE(name);
        dlerror();
        EXPECT_NE(dlsym(LoadedLibrary().handle, name), nullptr) << dlerror();
    }
}

// Internal functions, by their plain names and by their C++ symbol names.
const char *const kInternal[] = {
    "ReadBool",
    "GetWordFromUI",
    "WriteAnalog",
    "SaveBitToUC",
    "DealDataOfLocalArea",
    "quiryReadFinish",
    "fn_checkAddrType",
    "_Z8ReadBoolP6RW_VAR",
    "_Z13GetWordFromUIR10QByteArrayPtii",
    "_Z11WriteAnalogP6RW_VAR",
    "_Z11SaveBitToUCP10QByteArrayPh",
    "_Z19DealDataOfLocalAreaP10QByteArrayi",
    "_Z15quiryReadFinishRK5QListI6RW_VARE",
    "_Z16fn_checkAddrTypeR7QStringRKS_ii",
    "_Z10ComputeLrcRK10QByteArray",
    "_Z21FindOrCreateExtendVariRK7QStringi",
    "_ZN19Modbus_ASCII_MasterC1Ev",
    "_ZN19Modbus_ASCII_MasterD1Ev",
};

TEST_F(LoadedDriver, InternalNamesDoNotResolve) {
    for (const char *name : kInternal) {
        SCOPED_TRACE(name);
        EXPECT_EQ(dlsym(LoadedLibrary().handle, name), nullptr);
    }
}

TEST_F(LoadedDriver, DriverObjectIsFreshlyConstructedOnLoad) {
    const FreshState &fresh = LoadedLibrary().fresh;
    EXPECT_TRUE(fresh.readListEmpty);
    EXPECT_TRUE(fresh.writeListEmpty);
    EXPECT_TRUE(fresh.onceReadListEmpty);
    EXPECT_TRUE(fresh.sendListEmpty);
    EXPECT_TRUE(fresh.extendListEmpty);
    EXPECT_EQ(fresh.currentKind, 100);
    EXPECT_EQ(fresh.readCursor, 0);
    EXPECT_EQ(fresh.linkFailed, 0);
    EXPECT_EQ(fresh.localArg0, 0);
    EXPECT_TRUE(fresh.comInfoNull);
    EXPECT_TRUE(fresh.callbackNull);
    EXPECT_TRUE(fresh.imageZero);
}

TEST_F(LoadedDriver, ResolvedFunctionsActOnTheResolvedDriverObject) {
    auto *d = static_cast<Modbus_ASCII_Master *>(dlsym(LoadedLibrary().handle, "PLC_driver"));
    auto flash = Resolve<FlashLocalRegisterFn>("FlashLocalRegister");
    auto setComInfo = Resolve<SetComInfoFn>("SetComInfo");
    auto registCallBack = Resolve<RegistCallBackFuncIntfFn>("RegistCallBackFuncIntf");
    auto addListReadVar = Resolve<AddListReadVarFn>("AddListReadVar");
    ASSERT_NE(d, nullptr);
    ASSERT_NE(flash, nullptr);
    ASSERT_NE(setComInfo, nullptr);
    ASSERT_NE(registCallBack, nullptr);
    ASSERT_NE(addListReadVar, nullptr);

    flash(1, 2, 3);
    EXPECT_EQ(d->localArg0, 1);
    EXPECT_EQ(d->localArg1, 2);
    EXPECT_EQ(d->localArg2, 3);

    ComInfo info;
    info.resetOnAttachA = 9;
    info.resetOnAttachB = 9;
    setComInfo(&info);
    EXPECT_EQ(d->comInfo, &info);
    EXPECT_EQ(info.resetOnAttachA, 0);
    EXPECT_EQ(info.resetOnAttachB, 0);

    registCallBack(nullptr, 55);
    EXPECT_EQ(d->callbackArg, 55);

    const int before = d->readList.size();
    RW_VAR var;
    var.area = QString::fromLatin1("4x");
    var.station = 1;
    var.count = 1;
    EXPECT_EQ(addListReadVar(&var), before + 1);
    EXPECT_EQ(d->readList.size(), before + 1);
    d->readList.clear();
    d->comInfo = nullptr;
}

TEST_F(LoadedDriver, HostReadThroughTheResolvedFunction) {
    auto setComInfo = Resolve<SetComInfoFn>("SetComInfo");
    auto getRegisterData = Resolve<GetRegisterDataFn>("GetRegisterData");
    auto *d = static_cast<Modbus_ASCII_Master *>(dlsym(LoadedLibrary().handle, "PLC_driver"));
    ASSERT_NE(setComInfo, nullptr);
    ASSERT_NE(getRegisterData, nullptr);
    ASSERT_NE(d, nullptr);

    ComInfo info;
    info.defaultStation = 1;
    info.workMode = 2;
    setComInfo(&info);

    QByteArray out;
    EXPECT_EQ(getRegisterData(QString::fromLatin1("4x"), 0, 1, out, 1), 1);
    EXPECT_EQ(out, QByteArray(2, '\0'));

    d->holdingRegArea[7] = 0x1234;
    QByteArray value;
    EXPECT_EQ(getRegisterData(QString::fromLatin1("4x"), 7, 1, value, 1), 1);
    EXPECT_EQ(value, QByteArray("\x34\x12", 2));
    d->holdingRegArea[7] = 0;

    QByteArray refused("\x07", 1);
    EXPECT_EQ(getRegisterData(QString::fromLatin1("4x"), -1, 1, refused, 1), 0);
    EXPECT_EQ(refused, QByteArray("\x07", 1));
    d->comInfo = nullptr;
}

TEST_F(LoadedDriver, InterfaceIsNotAddedToTheGlobalNamespace) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "SetComInfo"), nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "PLC_driver"), nullptr);
}

}  // namespace
