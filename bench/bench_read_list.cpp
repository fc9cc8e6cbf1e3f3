// Rebuild of the cyclic read list from a large variable set, with one station and with
// station grouping.
#include <benchmark/benchmark.h>

#include <QList>
#include <QString>
#include <random>

#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

namespace {

constexpr int kVariableCount = 100000;
constexpr int kStations = 8;

// A reproducible mix of all eight areas, scattered over the address space, of short and
// long variables and several stations.
QList<Keyboard> mixedVariables(int count) {
    static const char *const kAreas[] = {"0x",     "1x",     "3x",        "4x",
                                         "3x_bit", "4x_bit", "3x_double", "4x_double"};
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> areaIndex(0, 7);
    std::uniform_int_distribution<int> registerNumber(0, 65000);
    std::uniform_int_distribution<int> bit(0, 15);
    std::uniform_int_distribution<int> length(1, 40);
    std::uniform_int_distribution<int> station(1, kStations);
    QList<Keyboard> vars;
    vars.reserve(count);
    for (int i = 0; i < count; ++i) {
        Keyboard var;
        var.area = QString::fromLatin1(kAreas[areaIndex(random)]);
        var.auxName = QStringLiteral("tag%1").arg(i);
        var.station = static_cast<unsigned char>(station(random));
        var.length = length(random);
        const bool registerBit = var.area.endsWith(QLatin1String("_bit"));
        var.address =
            registerBit ? registerNumber(random) * 16 + bit(random) : registerNumber(random);
        vars.append(var);
    }
    return vars;
}

void rebuild(benchmark::State &state, int multiStation) {
    ResetDriverObject();
    ComInfo info;
    info.maxFrameWords = 125;
    info.defaultStation = 1;
    info.multiStation = multiStation;
    SetComInfo(&info);
    QList<Keyboard> vars = mixedVariables(kVariableCount);
    int requests = 0;
    for (auto _ : state) {
        requests = ReCreatReadVarList(&vars);
        benchmark::DoNotOptimize(requests);
    }
    state.counters["requests"] = requests;
    state.SetItemsProcessed(state.iterations() * kVariableCount);
    ResetDriverObject();
}

void BM_RebuildSingleStation(benchmark::State &state) {
    rebuild(state, 0);
}
void BM_RebuildStationGroups(benchmark::State &state) {
    rebuild(state, 1);
}

}  // namespace

BENCHMARK(BM_RebuildSingleStation)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RebuildStationGroups)->Unit(benchmark::kMillisecond);
