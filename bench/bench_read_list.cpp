// SPDX-License-Identifier: MIT
// Rebuild of the cyclic read list from 10,000 to 1,000,000 variables, with one station and
// with station grouping: time, and the peak of resident memory during the rebuild.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <QList>
#include <QString>
#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

namespace {

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

// The variable sets, made once per size: making them costs more than a rebuild.
const QList<Keyboard> &variablesOf(int count) {
    static std::map<int, QList<Keyboard>> made;
    auto found = made.find(count);
    if (found == made.end()) found = made.emplace(count, mixedVariables(count)).first;
    return found->second;
}

// A line of /proc/self/status in KiB, such as "VmHWM:" (the peak resident set).
double statusKiB(const char *field) {
    std::ifstream status("/proc/self/status");
    std::string name;
    double value = 0;
    while (status >> name) {
        if (name == field) {
            status >> value;
            return value;
        }
        status.ignore(1 << 12, '\n');
    }
    return 0;
}

// Lets the peak resident set start again from the current one (Linux 4.0 and later).
void resetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

void rebuild(benchmark::State &state, int multiStation) {
    const int count = static_cast<int>(state.range(0));
    ResetDriverObject();
    ComInfo info;
    info.maxFrameWords = 125;
    info.defaultStation = 1;
    info.multiStation = multiStation;
    SetComInfo(&info);
    QList<Keyboard> vars = variablesOf(count);
    int requests = 0;
    double peakKiB = 0;
    for (auto _ : state) {
        state.PauseTiming();
        PLC_driver.readList.clear();  // the peak counts the new list, not the old one too
        malloc_trim(0);  // freed memory leaves the resident set, so that the peak counts anew
        resetPeakMemory();
        const double before = statusKiB("VmRSS:");
        state.ResumeTiming();
        requests = ReCreatReadVarList(&vars);
        benchmark::DoNotOptimize(requests);
        state.PauseTiming();
        peakKiB = std::max(peakKiB, statusKiB("VmHWM:") - before);
        state.ResumeTiming();
    }
    state.counters["requests"] = requests;
    state.counters["peak_MiB"] = peakKiB / 1024;
    state.SetItemsProcessed(state.iterations() * count);
    ResetDriverObject();
}

void BM_RebuildSingleStation(benchmark::State &state) {
    rebuild(state, 0);
}
void BM_RebuildStationGroups(benchmark::State &state) {
    rebuild(state, 1);
}

}  // namespace

BENCHMARK(BM_RebuildSingleStation)
    ->ArgName("variables")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RebuildStationGroups)
    ->ArgName("variables")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);
