// SPDX-License-Identifier: MIT
// Puts the one global driver object back into its freshly loaded state.
#ifndef MODBUS_TEST_DRIVER_RESET_H
#define MODBUS_TEST_DRIVER_RESET_H

#include <cstring>

#include "modbus_ascii_master.h"

inline void ResetDriverObject() {
    Modbus_ASCII_Master &d = PLC_driver;
    d.localArg0 = d.localArg1 = d.localArg2 = 0;
    d.comInfo = nullptr;
    d.readList.clear();
    d.writeList.clear();
    d.onceReadList.clear();
    d.spareList.clear();
    d.sendList.clear();
    d.extendList.clear();
    d.callback = nullptr;
    d.callbackArg = 0;
    d.current = RW_VAR();
    d.currentKind = 100;
    d.writeBurst = 0;
    d.onceBurst = 0;
    d.readCursor = 0;
    d.linkFailed = 0;
    std::memset(d.coilArea, 0, sizeof d.coilArea);
    std::memset(d.inputBitArea, 0, sizeof d.inputBitArea);
    std::memset(d.inputRegArea, 0, sizeof d.inputRegArea);
    std::memset(d.holdingRegArea, 0, sizeof d.holdingRegArea);
}

#endif  // MODBUS_TEST_DRIVER_RESET_H
