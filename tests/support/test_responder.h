// SPDX-License-Identifier: MIT
// A test slave for the poll loop: it decodes every request frame by itself (hex digits,
// LRC, function code, address, quantity, data), answers from its own tables of coils,
// discrete inputs, input and holding registers per station, and applies writes to them.
// Each station can be told to misbehave: answer with an exception, stay silent, send a
// reply of the wrong length, a wrong LRC or a lower-case LRC.
#ifndef MODBUS_TEST_RESPONDER_H
#define MODBUS_TEST_RESPONDER_H

#include <QByteArray>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "modbus_ascii_master.h"
#include "modbus_ascii_master_api.h"

enum class SlaveMode {
    kCorrect,
    kException,     // function code | 0x80 and exception code 02 (11 characters)
    kSilence,       // nothing arrives
    kWrongLength,   // a correct reply with one extra data byte (and a matching LRC)
    kBadLrc,        // a correct reply whose LRC is one too high
    kLowerCaseLrc,  // a correct reply whose LRC letters are lower case
};

// One decoded request frame.
struct DecodedRequest {
    bool wellFormed = false;  // ':' start, CR LF end, hex digits, LRC right, sizes consistent
    int station = 0;
    int function = 0;
    int address = 0;
    int quantity = 0;           // coils/inputs/registers; for function 5 and 6 the value instead
    std::vector<uint8_t> data;  // function 16: the register bytes after the byte count
};

// The data tables of one slave station.
struct SlaveStation {
    std::vector<uint8_t> coils = std::vector<uint8_t>(65536, 0);
    std::vector<uint8_t> discreteInputs = std::vector<uint8_t>(65536, 0);
    std::vector<uint16_t> inputRegisters = std::vector<uint16_t>(65536, 0);
    std::vector<uint16_t> holdingRegisters = std::vector<uint16_t>(65536, 0);
    SlaveMode mode = SlaveMode::kCorrect;
    std::deque<SlaveMode> scripted;  // modes for the next replies, before `mode` applies again
};

class TestResponder {
public:
    // Creates (or returns) the tables of a station; stations not added stay silent.
    SlaveStation &Station(int station) { return stations_[station]; }
    bool HasStation(int station) const { return stations_.count(station) != 0; }

    // Every frame received, in order.
    const std::vector<QByteArray> &Received() const { return received_; }
    const std::vector<DecodedRequest> &Decoded() const { return decoded_; }
    int MalformedFrames() const { return malformed_; }
    // Whether the last lower-case-LRC reply really had a letter to lower.
    bool LastLrcHadLetter() const { return lastLrcHadLetter_; }

    static int HexValue(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;  // requests are upper case only
    }

    static void AppendHex(QByteArray &out, unsigned int byte) {
        static const char kDigits[] = "0123456789ABCDEF";
        out.append(kDigits[(byte >> 4) & 0x0F]);
        out.append(kDigits[byte & 0x0F]);
    }

    static uint8_t Lrc(const std::vector<uint8_t> &bytes) {
        unsigned int sum = 0;
        for (uint8_t b : bytes) sum += b;
        return static_cast<uint8_t>((0x100u - (sum & 0xFFu)) & 0xFFu);
    }

    static QByteArray Encode(const std::vector<uint8_t> &bytes) {
        QByteArray out(":");
        for (uint8_t b : bytes) AppendHex(out, b);
        AppendHex(out, Lrc(bytes));
        out.append("\r\n");
        return out;
    }

    // Decodes a request frame without any help from the driver.
    static DecodedRequest Decode(const QByteArray &frame) {
        DecodedRequest r;
        if (frame.size() < 11 || frame.at(0) != ':' || !frame.endsWith("\r\n")) return r;
        const int hexChars = frame.size() - 3;
        if (hexChars % 2 != 0) return r;
        std::vector<uint8_t> bytes;
        for (int i = 1; i + 1 < 1 + hexChars; i += 2) {
            const int hi = HexValue(frame.at(i));
            const int lo = HexValue(frame.at(i + 1));
            if (hi < 0 || lo < 0) return r;
            bytes.push_back(static_cast<uint8_t>(hi * 16 + lo));
        }
        if (bytes.size() < 7) return r;
        const uint8_t lrc = bytes.back();
        bytes.pop_back();
        if (Lrc(bytes) != lrc) return r;
        r.station = bytes[0];
        r.function = bytes[1];
        r.address = bytes[2] * 256 + bytes[3];
        r.quantity = bytes[4] * 256 + bytes[5];
        if (r.function == 16) {
            if (bytes.size() < 7) return r;
            const size_t byteCount = bytes[6];
            if (bytes.size() != 7 + byteCount) return r;
            r.data.assign(bytes.begin() + 7, bytes.end());
        } else if (bytes.size() != 6) {
            return r;
        }
        r.wellFormed = true;
        return r;
    }

    // The reply the slave sends to a frame; empty when nothing is sent.
    QByteArray Answer(const QByteArray &frame) {
        received_.push_back(frame);
        const DecodedRequest request = Decode(frame);
        decoded_.push_back(request);
        if (!request.wellFormed) {
            ++malformed_;
            return QByteArray();
        }
        if (request.station == 0) {  // broadcast: every station executes, none answers
            for (auto &entry : stations_) Execute(entry.first, entry.second, request);
            return QByteArray();
        }
        auto it = stations_.find(request.station);
        if (it == stations_.end()) return QByteArray();
        SlaveStation &station = it->second;
        SlaveMode mode = station.mode;
        if (!station.scripted.empty()) {
            mode = station.scripted.front();
            station.scripted.pop_front();
        }
        if (mode == SlaveMode::kSilence) return QByteArray();
        if (mode == SlaveMode::kException) {
            return Encode({static_cast<uint8_t>(request.station),
                           static_cast<uint8_t>(request.function | 0x80), 0x02});
        }
        std::vector<uint8_t> reply = Execute(request.station, station, request);
        if (reply.empty()) return QByteArray();
        if (mode == SlaveMode::kWrongLength) reply.push_back(0x00);
        QByteArray text = Encode(reply);
        if (mode == SlaveMode::kBadLrc) {
            std::vector<uint8_t> copy = reply;
            const uint8_t wrong = static_cast<uint8_t>(Lrc(copy) + 1);
            QByteArray lrc;
            AppendHex(lrc, wrong);
            text.replace(text.size() - 4, 2, lrc);
        } else if (mode == SlaveMode::kLowerCaseLrc) {
            lastLrcHadLetter_ = false;
            for (int i = text.size() - 4; i < text.size() - 2; ++i) {
                if (text.at(i) >= 'A' && text.at(i) <= 'F') {
                    text[i] = static_cast<char>(text.at(i) + ('a' - 'A'));
                    lastLrcHadLetter_ = true;
                }
            }
        }
        return text;
    }

private:
    static std::vector<uint8_t> Exception(const DecodedRequest &r, uint8_t code) {
        return {static_cast<uint8_t>(r.station), static_cast<uint8_t>(r.function | 0x80), code};
    }

    // Applies the request to the tables; returns the binary reply (without LRC).
    static std::vector<uint8_t> Execute(int stationNumber, SlaveStation &s,
                                        const DecodedRequest &r) {
        const uint8_t st = static_cast<uint8_t>(stationNumber);
        const uint8_t fn = static_cast<uint8_t>(r.function);
        auto header6 = [&](int a, int b) {
            return std::vector<uint8_t>{st,
                                        fn,
                                        static_cast<uint8_t>(a >> 8),
                                        static_cast<uint8_t>(a & 0xFF),
                                        static_cast<uint8_t>(b >> 8),
                                        static_cast<uint8_t>(b & 0xFF)};
        };
        switch (r.function) {
            case 1:
            case 2: {
                const std::vector<uint8_t> &bits = r.function == 1 ? s.coils : s.discreteInputs;
                if (r.quantity < 1 || r.quantity > 2000 || r.address + r.quantity > 65536) {
                    return Exception(r, 0x02);
                }
                const int byteCount = (r.quantity + 7) / 8;
                std::vector<uint8_t> reply{st, fn, static_cast<uint8_t>(byteCount)};
                for (int b = 0; b < byteCount; ++b) {
                    uint8_t packed = 0;
                    for (int bit = 0; bit < 8; ++bit) {
                        const int index = 8 * b + bit;
                        if (index < r.quantity && bits[r.address + index] != 0) {
                            packed |= static_cast<uint8_t>(1u << bit);
                        }
                    }
                    reply.push_back(packed);
                }
                return reply;
            }
            case 3:
            case 4: {
                const std::vector<uint16_t> &regs =
                    r.function == 3 ? s.holdingRegisters : s.inputRegisters;
                if (r.quantity < 1 || r.quantity > 125 || r.address + r.quantity > 65536) {
                    return Exception(r, 0x02);
                }
                std::vector<uint8_t> reply{st, fn, static_cast<uint8_t>(2 * r.quantity)};
                for (int i = 0; i < r.quantity; ++i) {
                    reply.push_back(static_cast<uint8_t>(regs[r.address + i] >> 8));
                    reply.push_back(static_cast<uint8_t>(regs[r.address + i] & 0xFF));
                }
                return reply;
            }
            case 5:
                if (r.quantity != 0xFF00 && r.quantity != 0x0000) return Exception(r, 0x03);
                s.coils[r.address] = r.quantity == 0xFF00 ? 1 : 0;
                return header6(r.address, r.quantity);
            case 6:
                s.holdingRegisters[r.address] = static_cast<uint16_t>(r.quantity);
                return header6(r.address, r.quantity);
            case 16:
                if (r.quantity < 1 || r.quantity > 123 || r.address + r.quantity > 65536 ||
                    static_cast<int>(r.data.size()) != 2 * r.quantity) {
                    return Exception(r, 0x03);
                }
                for (int i = 0; i < r.quantity; ++i) {
                    s.holdingRegisters[r.address + i] =
                        static_cast<uint16_t>(r.data[2 * i] * 256 + r.data[2 * i + 1]);
                }
                return header6(r.address, r.quantity);
            default:
                return Exception(r, 0x01);
        }
    }

    std::map<int, SlaveStation> stations_;
    std::vector<QByteArray> received_;
    std::vector<DecodedRequest> decoded_;
    int malformed_ = 0;
    bool lastLrcHadLetter_ = false;
};

// The result of one turn of the host's loop.
struct PollStep {
    bool sent = false;  // ComCommunication returned a frame
    QByteArray frame;   // the bytes sent (frameLength of them)
    QByteArray reply;   // what came back
    int result = -1;    // DataCom's result, -1 when nothing was sent
};

// One turn of the host's loop: ask for a frame, let the responder answer, hand the reply back.
inline PollStep PollOnce(TestResponder &responder) {
    PollStep step;
    Protocol *protocol = ComCommunication();
    if (protocol == nullptr) return step;
    step.sent = true;
    step.frame = protocol->frame.left(protocol->frameLength);
    step.reply = responder.Answer(step.frame);
    step.result = DataCom(&step.reply);
    return step;
}

#endif  // MODBUS_TEST_RESPONDER_H
