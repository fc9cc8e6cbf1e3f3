// SPDX-License-Identifier: MIT
// Frames and driver set-up shared by the benchmarks; built only from the exported interface
// and the public driver object, so that the same benchmarks run against any build.
#ifndef MODBUS_BENCH_FRAMES_H
#define MODBUS_BENCH_FRAMES_H

#include <QByteArray>
#include <QString>

#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

// The value of register i in every benchmark reply: all sixteen hex digits occur.
inline unsigned int BenchRegisterValue(int i) {
    return (0x1234u + 0x9E37u * static_cast<unsigned int>(i)) & 0xFFFFu;
}

// ':' + upper-case hex of binary + LRC + CR LF, computed here rather than by the driver.
inline QByteArray BenchFrame(const QByteArray &binary) {
    unsigned int sum = 0;
    for (char c : binary) sum += static_cast<unsigned char>(c);
    QByteArray lrc(1, static_cast<char>((0x100u - (sum & 0xFFu)) & 0xFFu));
    return ":" + (binary + lrc).toHex().toUpper() + "\r\n";
}

// A function-3 reply of registers values BenchRegisterValue(0), (1), ...
inline QByteArray BenchRegisterReply(int station, int registers) {
    QByteArray binary;
    binary.append(static_cast<char>(station));
    binary.append(static_cast<char>(3));
    binary.append(static_cast<char>(2 * registers));
    for (int i = 0; i < registers; ++i) {
        binary.append(static_cast<char>(BenchRegisterValue(i) >> 8));
        binary.append(static_cast<char>(BenchRegisterValue(i) & 0xFF));
    }
    return BenchFrame(binary);
}

inline void AttachBenchComInfo(ComInfo &info, int multiStation) {
    ResetDriverObject();
    info = ComInfo();
    info.maxFrameWords = 125;
    info.defaultStation = 1;
    info.retryLimit = 3;
    info.workMode = 2;
    info.multiStation = multiStation;
    SetComInfo(&info);
}

// One cyclic read variable of count holding registers at address of station.
inline void AddHoldingRead(int station, int address, int count) {
    RW_VAR var;
    var.area = QStringLiteral("4x");
    var.station = station;
    var.address = address;
    var.count = count;
    AddListReadVar(&var);
}

// Per-station records of other stations, as a host polling many slaves has them: stations
// 2, 3, ... with "3x" and "4x" addresses 0 to 249 each, count records in all.
inline void AddOtherStationRecords(int count) {
    const QString areas[] = {QStringLiteral("3x"), QStringLiteral("4x")};
    int made = 0;
    for (int station = 2; made < count; ++station) {
        for (int a = 0; a < 2 && made < count; ++a) {
            for (int address = 0; address < 250 && made < count; ++address, ++made) {
                EXTENDVAR record;
                record.station = station;
                record.area = areas[a];
                record.address = address;
                record.data = QByteArray(2, '\x01');
                PLC_driver.extendList.append(record);
            }
        }
    }
}

#endif  // MODBUS_BENCH_FRAMES_H
