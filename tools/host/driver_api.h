// SPDX-License-Identifier: MIT
// The driver's interface as a host runtime sees it: a shared library opened with dlopen and
// every exported function looked up by name.
#ifndef MODBUS_ASCII_HOST_DRIVER_API_H
#define MODBUS_ASCII_HOST_DRIVER_API_H

#include <QString>

#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

// Function pointers of the loaded driver. Their types come from the interface header, so a
// change there shows up here at compile time.
struct DriverApi {
    decltype(&::SetComInfo) setComInfo = nullptr;
    decltype(&::FlashLocalRegister) flashLocalRegister = nullptr;
    decltype(&::RegistCallBackFuncIntf) registCallBackFuncIntf = nullptr;
    decltype(&::AddListReadVar) addListReadVar = nullptr;
    decltype(&::AddListWriteVar) addListWriteVar = nullptr;
    decltype(&::AddListOnceReadVar) addListOnceReadVar = nullptr;
    decltype(&::ReCreatReadVarList) reCreatReadVarList = nullptr;
    decltype(&::ComCommunication) comCommunication = nullptr;
    decltype(&::DataCom) dataCom = nullptr;
    decltype(&::GetRegisterData) getRegisterData = nullptr;
    decltype(&::SetRegisterData) setRegisterData = nullptr;
    decltype(&::CheckAddrCorrect) checkAddrCorrect = nullptr;
    decltype(&::AddrStringToInt) addrStringToInt = nullptr;
    decltype(&::AddrMutilCopy) addrMutilCopy = nullptr;
    // The exported driver object; the host only reads its cyclic read list (--plan).
    const Modbus_ASCII_Master *driver = nullptr;
};

// Opens the library at path (RTLD_NOW | RTLD_LOCAL) and resolves the whole interface.
// Throws ToolError naming the library, or the first symbol it lacks. The library stays
// loaded until the process ends, as it does in a runtime.
DriverApi LoadDriver(const QString &path);

#endif  // MODBUS_ASCII_HOST_DRIVER_API_H
