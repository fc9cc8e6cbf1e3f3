// The driver's work per transaction on the host's loop: building a frame, validating and
// storing its reply, and the host's reads and writes of values.
#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QString>

#include "driver_internal.h"
#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

namespace {

// A read reply carrying registers words of rising values, with its LRC.
QByteArray registerReply(int station, int function, int registers) {
    QByteArray binary;
    binary.append(static_cast<char>(station));
    binary.append(static_cast<char>(function));
    binary.append(static_cast<char>(2 * registers));
    for (int i = 0; i < registers; ++i) {
        binary.append(static_cast<char>(i >> 8));
        binary.append(static_cast<char>(i));
    }
    return EncodeFrame(binary);
}

ComInfo &attachComInfo(int multiStation) {
    static ComInfo info;
    ResetDriverObject();
    info = ComInfo();
    info.maxFrameWords = 125;
    info.defaultStation = 1;
    info.retryLimit = 3;
    info.workMode = 2;
    info.multiStation = multiStation;
    SetComInfo(&info);
    return info;
}

// One cyclic read of 125 holding registers: ComCommunication + DataCom with a good reply.
void BM_CyclicReadTransaction(benchmark::State &state) {
    attachComInfo(static_cast<int>(state.range(0)));
    RW_VAR var;
    var.area = QStringLiteral("4x");
    var.station = 1;
    var.address = 1000;
    var.count = 125;
    AddListReadVar(&var);
    QByteArray reply = registerReply(1, 3, 125);
    for (auto _ : state) {
        Protocol *frame = ComCommunication();
        benchmark::DoNotOptimize(frame);
        if (DataCom(&reply) != 1) state.SkipWithError("reply rejected");
    }
    state.SetLabel(state.range(0) ? "multi-station" : "single-station");
    ResetDriverObject();
}
BENCHMARK(BM_CyclicReadTransaction)->Arg(0)->Arg(1);

// A host write of 10 registers, queued and then sent and acknowledged.
void BM_HostWriteTransaction(benchmark::State &state) {
    attachComInfo(0);
    const QByteArray value(20, '\x11');
    QByteArray ack = EncodeFrame(QByteArray::fromHex("01100064000A"));
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
    attachComInfo(static_cast<int>(state.range(0)));
    QByteArray out;
    for (auto _ : state) {
        GetRegisterData(QStringLiteral("4x"), 1000, 1, out, 125);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetLabel(state.range(0) ? "multi-station" : "single-station");
    ResetDriverObject();
}
BENCHMARK(BM_HostRead)->Arg(0)->Arg(1);

}  // namespace
