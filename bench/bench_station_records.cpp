// SPDX-License-Identifier: MIT
// Per-station records at scale: storing a reply and reading values in multi-station mode
// beside many records of other stations, and the index rebuild after a host edit.
#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QString>

#include "bench_frames.h"

namespace {

void attachWithOtherRecords(ComInfo &info, int otherRecords) {
    AttachBenchComInfo(info, 1);
    AddOtherStationRecords(otherRecords);
}

// One cyclic read of 125 registers (100 to 224) of station 1 stored into its per-station records,
// with N records of other stations in the list. The records of station 1 exist already.
void BM_MultiStationStore(benchmark::State &state) {
    static ComInfo info;
    attachWithOtherRecords(info, static_cast<int>(state.range(0)));
    AddHoldingRead(1, 100, 125);
    QByteArray reply = BenchRegisterReply(1, 125);
    ComCommunication();
    DataCom(&reply);  // creates the records and builds the index, outside the timing
    for (auto _ : state) {
        ComCommunication();
        if (DataCom(&reply) != 1) state.SkipWithError("reply rejected");
    }
    state.counters["records"] = PLC_driver.extendList.size();
    ResetDriverObject();
}
BENCHMARK(BM_MultiStationStore)->ArgName("other")->Arg(1000)->Arg(10000)->Arg(100000);

// The host reading 125 registers (100 to 224) of station 1 with N records of other stations.
void BM_MultiStationHostRead(benchmark::State &state) {
    static ComInfo info;
    attachWithOtherRecords(info, static_cast<int>(state.range(0)));
    QByteArray out;
    GetRegisterData(QStringLiteral("4x"), 100, 1, out, 125);  // creates the records
    for (auto _ : state) {
        GetRegisterData(QStringLiteral("4x"), 100, 1, out, 125);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["records"] = PLC_driver.extendList.size();
    ResetDriverObject();
}
BENCHMARK(BM_MultiStationHostRead)->ArgName("other")->Arg(1000)->Arg(10000)->Arg(100000);

// A host read of one register right after the host appended a record to the public list:
// the driver must look at the whole list again before it trusts its index.
void BM_HostReadAfterHostEdit(benchmark::State &state) {
    static ComInfo info;
    attachWithOtherRecords(info, static_cast<int>(state.range(0)));
    QByteArray out;
    GetRegisterData(QStringLiteral("4x"), 100, 1, out, 1);
    EXTENDVAR extra;
    extra.station = 1;
    extra.area = QStringLiteral("3x");
    extra.data = QByteArray(2, '\0');
    for (auto _ : state) {
        state.PauseTiming();
        extra.address += 1;
        PLC_driver.extendList.append(extra);
        state.ResumeTiming();
        GetRegisterData(QStringLiteral("4x"), 100, 1, out, 1);
        benchmark::DoNotOptimize(out.data());
    }
    ResetDriverObject();
}
BENCHMARK(BM_HostReadAfterHostEdit)
    ->ArgName("other")
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
