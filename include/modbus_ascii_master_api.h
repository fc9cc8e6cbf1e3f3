// SPDX-License-Identifier: MIT
// The functions a host runtime calls. All work on the one driver object PLC_driver.
#ifndef MODBUS_ASCII_MASTER_API_H
#define MODBUS_ASCII_MASTER_API_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVector>

#include "modbus_ascii_master.h"

// The host is compiled against these exact declarations: two of them return a QString
// although they have C linkage.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

extern "C" {

// Configuration and registration (configuration time, no lock).
MODBUS_ASCII_EXPORT void SetComInfo(ComInfo *info);
MODBUS_ASCII_EXPORT void FlashLocalRegister(int a0, int a1, int a2);
MODBUS_ASCII_EXPORT void RegistCallBackFuncIntf(CallBackFunc func, int arg);
MODBUS_ASCII_EXPORT int AddListReadVar(RW_VAR *var);
MODBUS_ASCII_EXPORT int AddListWriteVar(RW_VAR *var);
MODBUS_ASCII_EXPORT int AddListOnceReadVar(RW_VAR *var);
MODBUS_ASCII_EXPORT int ReCreatReadVarList(QList<Keyboard> *vars);

// Polling: the host alternates these two on its communication thread.
MODBUS_ASCII_EXPORT Protocol *ComCommunication(void);
MODBUS_ASCII_EXPORT int DataCom(QByteArray *reply);

// Values in the local register image.
MODBUS_ASCII_EXPORT int GetRegisterData(const QString &area, int address, int station,
                                        QByteArray &out, int count);
MODBUS_ASCII_EXPORT int SetRegisterData(const QString &area, int address, unsigned int station,
                                        const QByteArray &value, int count);

// Address utilities for the configuration tool.
MODBUS_ASCII_EXPORT QString CheckAddrCorrect(const QString &area, const QString &text, int *address,
                                             int length, int language, int dataKind);
MODBUS_ASCII_EXPORT int AddrStringToInt(const QString &area, const QString &text);
MODBUS_ASCII_EXPORT QString AddrMutilCopy(const QString &area, int start, int copies, int step,
                                          QStringList *texts, QVector<int> *addresses,
                                          int language);
}

#if defined(__clang__)
#pragma clang diagnostic pop
#endif

#endif  // MODBUS_ASCII_MASTER_API_H
