// SPDX-License-Identifier: MIT
#include "driver_api.h"

#include <dlfcn.h>

#include "tool_error.h"

namespace {

// Looks up one exported name; a missing one is fatal, since a runtime could not use the driver.
void *Resolve(void *library, const QString &path, const char *name) {
    dlerror();
    void *symbol = dlsym(library, name);
    if (symbol == nullptr) {
        throw ToolError(QStringLiteral("driver library %1 does not export %2")
                            .arg(path, QString::fromLatin1(name)));
    }
    return symbol;
}

template <typename Function>
void ResolveInto(Function &target, void *library, const QString &path, const char *name) {
    target = reinterpret_cast<Function>(Resolve(library, path, name));
}

}  // namespace

DriverApi LoadDriver(const QString &path) {
    void *library = dlopen(path.toLocal8Bit().constData(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw ToolError(QStringLiteral("cannot load driver library %1: %2")
                            .arg(path, QString::fromLocal8Bit(dlerror())));
    }
    DriverApi api;
    ResolveInto(api.setComInfo, library, path, "SetComInfo");
    ResolveInto(api.flashLocalRegister, library, path, "FlashLocalRegister");
    ResolveInto(api.registCallBackFuncIntf, library, path, "RegistCallBackFuncIntf");
    ResolveInto(api.addListReadVar, library, path, "AddListReadVar");
    ResolveInto(api.addListWriteVar, library, path, "AddListWriteVar");
    ResolveInto(api.addListOnceReadVar, library, path, "AddListOnceReadVar");
    ResolveInto(api.reCreatReadVarList, library, path, "ReCreatReadVarList");
    ResolveInto(api.comCommunication, library, path, "ComCommunication");
    ResolveInto(api.dataCom, library, path, "DataCom");
    ResolveInto(api.getRegisterData, library, path, "GetRegisterData");
    ResolveInto(api.setRegisterData, library, path, "SetRegisterData");
    ResolveInto(api.checkAddrCorrect, library, path, "CheckAddrCorrect");
    ResolveInto(api.addrStringToInt, library, path, "AddrStringToInt");
    ResolveInto(api.addrMutilCopy, library, path, "AddrMutilCopy");
    api.driver = static_cast<const Modbus_ASCII_Master *>(Resolve(library, path, "PLC_driver"));
    return api;
}
