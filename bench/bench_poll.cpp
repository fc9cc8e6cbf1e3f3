// SPDX-License-Identifier: MIT
// The driver's work per transaction on the host's loop: building a frame, validating and
// storing its reply, and the host's reads and writes of values.
#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QString>

#include "bench_frames.h"

namespace {

// What the transaction left in the image, read back through the interface: the label holds
// the request and reply frames, the counters the values, so that a comparison with another
// Modbus stack can check that both did the same work.
void reportDecodedRegisters(benchmark::State &state, const QByteArray &request,
                            const QByteArray &reply, int registers) {
    QByteArray values;
    GetRegisterData(QStringLiteral("4x"), 1000, 1, values, registers);
    double sum = 0;
    double weighted = 0;
    for (int i = 0; i < registers && 2 * i + 1 < values.size(); ++i) {
        const unsigned int value = static_cast<unsigned char>(values.at(2 * i)) +
                                   256u * static_cast<unsigned char>(values.at(2 * i + 1));
        sum += value;
        weighted += double(i + 1) * value;
    }
    state.counters["values_sum"] = sum;
    state.counters["values_weighted"] = weighted;
    state.SetLabel((request.trimmed() + " " + reply.trimmed()).toStdString());
}

// One cyclic read of N holding registers of station 1: ComCommunication + DataCom with a
// correct reply. Arguments: registers, multi-station mode.
void BM_CyclicReadTransaction(benchmark::State &state) {
    static ComInfo info;
    const int registers = static_cast<int>(state.range(0));
    AttachBenchComInfo(info, static_cast<int>(state.range(1)));
    AddHoldingRead(1, 1000, registers);
    QByteArray reply = BenchRegisterReply(1, registers);
    QByteArray request;
    for (auto _ : state) {
        Protocol *frame = ComCommunication();
        benchmark::DoNotOptimize(frame);
        if (DataCom(&reply) != 1) state.SkipWithError("reply rejected");
    }
    request = ComCommunication()->frame;
    reportDecodedRegisters(state, request, reply, registers);
    ResetDriverObject();
}
BENCHMARK(BM_CyclicReadTransaction)
    ->ArgNames({"registers", "multi"})
    ->Args({1, 0})
    ->Args({125, 0})
    ->Args({125, 1});

// A host write of 10 registers, queued and then sent and acknowledged.
void BM_HostWriteTransaction(benchmark::State &state) {
    static ComInfo info;
    AttachBenchComInfo(info, 0);
    const QByteArray value(20, '\x11');
    QByteArray ack = BenchFrame(QByteArray::fromHex("01100064000A"));
    for (auto _ : state) {
        SetRegisterData(QStringLiteral("4x"), 100, 1, value, 10);
        // After five writes in a row one poll is idle before the next burst.
        if (ComCommunication() == nullptr) ComCommunication();
        if (DataCom(&ack) != 1) state.SkipWithError("write not acknowledged");
    }
    ResetDriverObject();
}
BENCHMARK(BM_HostWriteTransaction);

// The host reading 125 registers from the image, or from the per-station records.
void BM_HostRead(benchmark::State &state) {
    static ComInfo info;
    AttachBenchComInfo(info, static_cast<int>(state.range(0)));
    QByteArray out;
    for (auto _ : state) {
        GetRegisterData(QStringLiteral("4x"), 1000, 1, out, 125);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetLabel(state.range(0) ? "multi-station" : "single-station");
    ResetDriverObject();
}
BENCHMARK(BM_HostRead)->ArgName("multi")->Arg(0)->Arg(1);

}  // namespace
