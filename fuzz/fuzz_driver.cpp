// SPDX-License-Identifier: MIT
// Feeds untrusted input to every surface of the driver: replies from the line for every kind
// of request, read-list rebuilds, one-shot reads and host writes polled to completion, host
// value calls, and address texts of arbitrary Unicode. Under the sanitizers any access
// outside the image, a reply or a host array fails the run; the harness itself checks what
// the driver promises (see docs/SAFETY.md) after every call.
//
// Built as a libFuzzer target with clang (-DMODBUS_LIBFUZZER=ON), and always as a standalone
// runner: `fuzz_driver ITERATIONS SEED` runs random inputs, `fuzz_driver FILE...` replays files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "driver_reset.h"
#include "fuzz_input.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"
#include "poll_session.h"
#include "values_and_texts.h"

namespace {

using fuzz::InputReader;
using fuzz::PollSession;

// The first byte of an input picks the surface it goes to.
enum Surface {
    kRepliesToAnyRequest,
    kReadListRebuilds,
    kOnceReads,
    kHostWrites,
    kEverythingAtOnce,
    kHostValues,
    kAddressTexts,
    kSurfaceCount
};

ComInfo settingsFrom(InputReader &in) {
    ComInfo info;
    info.maxFrameWords = in.edgyInt(130);
    info.defaultStation = in.byte() % 8 == 0 ? in.edgyInt(300) : in.byte() % 3;
    info.retryLimit = in.byte() % 5 - 1;
    info.multiStation = in.byte() % 3;
    info.workMode = in.byte() % 4 == 0 ? 0 : 2;
    info.deviceId = in.byte();
    info.requestParamA = in.byte();
    return info;
}

// Requests queued as they are, with any tags, then polled with replies of every kind.
void fuzzRepliesToAnyRequest(InputReader &in, PollSession &session) {
    for (int i = in.byte() % 3; i >= 0; --i) {
        if (in.flag()) {
            session.QueueListWrite();
        } else {
            RW_VAR var;
            var.area = in.areaName();
            var.address = in.edgyInt(70000);
            var.station = in.byte() % 4;
            var.count = in.edgyInt(300);
            var.direction = in.byte() % 3;
            AddListReadVar(&var);
        }
    }
    session.Poll(in.byte() % 16 + 1);
}

void queueAndComplete(InputReader &in, PollSession &session, void (PollSession::*queue)()) {
    for (int i = in.byte() % 6; i >= 0; --i) (session.*queue)();
    session.Poll(in.byte() % 24);
    session.PollToCompletion();
}

void runSurface(InputReader &in, ComInfo &info, int surface) {
    PollSession session(in, info);
    switch (surface) {
        case kRepliesToAnyRequest:
            fuzzRepliesToAnyRequest(in, session);
            break;
        case kReadListRebuilds:
            session.RebuildReadList();
            session.Poll(in.byte() % 24 + 1);
            break;
        case kOnceReads:
            queueAndComplete(in, session, &PollSession::QueueOnceRead);
            break;
        case kHostWrites:
            queueAndComplete(
                in, session,
                in.flag() ? &PollSession::QueueHostWrite : &PollSession::QueueListWrite);
            break;
        case kEverythingAtOnce:
            queueAndComplete(in, session, &PollSession::AnyHostCall);
            break;
        case kHostValues:
            fuzz::FuzzHostValues(in, info);
            break;
        default:
            fuzz::FuzzAddressTexts(in);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ResetDriverObject();
    InputReader in(data, size);
    const int surface = in.byte() % kSurfaceCount;
    ComInfo info = settingsFrom(in);
    SetComInfo(&info);
    runSurface(in, info, surface);
    // Every allocation of the run is released, so that libFuzzer's leak check has nothing to
    // look into, and the driver keeps no pointer to this call's ComInfo.
    ResetDriverObject();
    return 0;
}

#if !defined(MODBUS_LIBFUZZER)
namespace {

int replayFile(const char *path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path);
        return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return 0;
}

void runRandom(long iterations, unsigned long seed) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    std::vector<uint8_t> input;
    for (long i = 0; i < iterations; ++i) {
        input.resize(random() % 400);
        for (uint8_t &b : input) b = static_cast<uint8_t>(random());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && std::string(argv[1]).find_first_not_of("0123456789") == std::string::npos) {
        const long iterations = std::strtol(argv[1], nullptr, 10);
        const unsigned long seed = argc >= 3 ? std::strtoul(argv[2], nullptr, 10) : 1;
        runRandom(iterations, seed);
        std::printf("fuzz_driver: %ld random inputs, seed %lu: no invariant broken\n", iterations,
                    seed);
        return 0;
    }
    int failures = 0;
    for (int i = 1; i < argc; ++i) failures += replayFile(argv[i]);
    return failures == 0 ? 0 : 1;
}
#endif
