// Feeds untrusted input to the driver: replies from the line for every kind of request, and
// host arguments to the value and address functions. Under the sanitizers any access outside
// the image, the reply or a host array fails the run; the harness itself checks the result
// codes and that nothing queues without bound.
//
// Built as a libFuzzer target with clang (-DMODBUS_LIBFUZZER=ON), and always as a standalone
// runner: `fuzz_driver ITERATIONS SEED` runs random inputs, `fuzz_driver FILE...` replays files.
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "driver_internal.h"
#include "driver_reset.h"
#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

namespace {

const char *const kAreaNames[] = {"0x",     "1x",        "3x",        "4x", "3x_bit",
                                  "4x_bit", "3x_double", "4x_double", "5x"};

// Reads the input front to back; past its end every value is 0.
class InputReader {
public:
    InputReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    int word() { return byte() << 8 | byte(); }
    int signedInt() { return static_cast<int>(static_cast<uint32_t>(word()) << 16 | word()); }
    QString areaName() { return QString::fromLatin1(kAreaNames[byte() % 9]); }
    QByteArray rest() {
        QByteArray bytes(reinterpret_cast<const char *>(data_ + pos_),
                         static_cast<int>(size_ - pos_));
        pos_ = size_;
        return bytes;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

void fail(const char *what) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

bool isResultCode(int code) {
    return code == 0 || code == 1 || (code >= 11 && code <= 22) || (code >= 41 && code <= 52) ||
           (code >= 71 && code <= 82);
}

// A reply that passes the length and LRC checks, so that the store gets exercised: the
// input's bytes framed by the codec. Read replies always have an odd length.
QByteArray wellFramedReply(const QByteArray &raw, int length) {
    if (length < 5 || length > 4096) return raw;
    const int bytes = (length - 5) / 2;
    return EncodeFrame(raw.left(bytes).leftJustified(bytes, '\0'));
}

void queueRequest(InputReader &in) {
    RW_VAR var;
    var.area = in.areaName();
    var.address = in.byte() & 1 ? in.signedInt() : in.word();
    var.station = in.byte() % 4;
    var.count = in.byte() & 1 ? in.signedInt() % 300 : in.byte() % 40;
    var.ownerType = in.byte() % 14;
    var.ownerId = in.byte();
    var.value = QByteArray(in.byte() % 12, static_cast<char>(in.byte()));
    if (in.byte() & 1) {
        var.direction = 1;
        AddListWriteVar(&var);
    } else {
        var.direction = in.byte() % 3;
        AddListReadVar(&var);
    }
}

void fuzzReplies(InputReader &in) {
    queueRequest(in);
    queueRequest(in);
    const bool framed = in.byte() & 1;
    const QByteArray raw = in.rest();
    for (int poll = 0; poll < 6; ++poll) {
        Protocol *frame = ComCommunication();
        if (frame == nullptr) continue;
        if (PLC_driver.sendList.size() > 2) fail("a request queued more than two frames");
        QByteArray reply = framed ? wellFramedReply(raw.mid(poll), frame->replyLength)
                                  : raw.mid(poll * 7, 64 + poll);
        if (!isResultCode(DataCom(&reply))) fail("DataCom returned an unknown code");
    }
}

void fuzzHostValues(InputReader &in) {
    const QString name = in.areaName();
    const int address = in.byte() & 1 ? in.signedInt() : in.word() * 2;
    const int station = in.byte();
    const int count = in.byte() & 1 ? in.signedInt() % 3000 : in.word() % 600;
    const QByteArray value = in.rest();
    SetRegisterData(name, address, static_cast<unsigned int>(station), value, count);
    QByteArray out(value.left(9));
    if (GetRegisterData(name, address, station, out, count) == 1 && count > 0 &&
        out.size() > 4 * count + 9) {
        fail("a host read grew the output past its count");
    }
}

void fuzzAddressTexts(InputReader &in) {
    const QString name = in.areaName();
    const int length = in.signedInt();
    const int language = in.byte() % 4;
    const int start = in.signedInt();
    const int copies = in.byte();
    const int step = in.signedInt() % 70000;
    const QString text = QString::fromLatin1(in.rest());
    int address = 0;
    CheckAddrCorrect(name, text, &address, length, language, in.byte() % 2);
    AddrStringToInt(name, text);
    QStringList texts;
    QVector<int> addresses;
    AddrMutilCopy(name, start, copies, step, &texts, &addresses, language);
    if (texts.size() != addresses.size()) fail("multi-copy lists differ in length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ResetDriverObject();
    ComInfo info;
    InputReader in(data, size);
    info.maxFrameWords = in.byte() % 130;
    info.defaultStation = in.byte() % 3;
    info.retryLimit = in.byte() % 3;
    info.multiStation = in.byte() % 2;
    info.workMode = in.byte() % 2 ? 2 : 0;
    SetComInfo(&info);
    switch (in.byte() % 3) {
        case 0:
            fuzzReplies(in);
            break;
        case 1:
            fuzzHostValues(in);
            break;
        default:
            fuzzAddressTexts(in);
            break;
    }
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
        input.resize(random() % 160);
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
