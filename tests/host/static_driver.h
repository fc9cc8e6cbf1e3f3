// SPDX-License-Identifier: MIT
// The driver's interface as the host tool sees it, taken from the driver's static library
// linked into the host tests instead of a library opened with dlopen.
#ifndef MODBUS_HOST_TEST_STATIC_DRIVER_H
#define MODBUS_HOST_TEST_STATIC_DRIVER_H

#include "driver_api.h"

inline DriverApi StaticDriver() {
    DriverApi api;
    api.setComInfo = &::SetComInfo;
    api.addListWriteVar = &::AddListWriteVar;
    api.addListOnceReadVar = &::AddListOnceReadVar;
    api.reCreatReadVarList = &::ReCreatReadVarList;
    api.comCommunication = &::ComCommunication;
    api.dataCom = &::DataCom;
    api.getRegisterData = &::GetRegisterData;
    api.driver = &PLC_driver;
    return api;
}

#endif  // MODBUS_HOST_TEST_STATIC_DRIVER_H
