// SPDX-License-Identifier: MIT
// What the fuzz harness knows of the wire by itself, without the driver's codec (with the
// test slave's hex digits): decoding Modbus ASCII frames, and the checks that every frame the
// driver builds must pass.
#ifndef MODBUS_FUZZ_FRAME_CHECK_H
#define MODBUS_FUZZ_FRAME_CHECK_H

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <vector>

#include "modbus_ascii_master.h"

namespace fuzz {

// Stops the run with a message; the sanitizers and libFuzzer report the abort.
[[noreturn]] void Fail(const char *what);

// The Modbus table an area name reads and writes: 0 coils, 1 discrete inputs, 2 input
// registers, 3 holding registers, -1 for any other name.
int TableOfArea(const QString &area);
// Whether the area holds whole coils or inputs ("0x", "1x").
bool IsBitArea(const QString &area);

// The bytes of a frame, LRC included; false unless it is ':' + upper-case hex pairs + CR LF.
bool Decode(const QByteArray &frame, std::vector<uint8_t> &bytes);

// How the scheduler came to build a frame: from a write request or a read request.
enum class Builder { Read, Write };

// Every frame handed to the host is well-formed Modbus ASCII with a correct LRC, carries
// the station, function code, address and quantity of its request, and expects the reply
// length that goes with them.
void CheckFrame(const Protocol &protocol, Builder builder);

// The register value a function-06 frame writes.
unsigned int WrittenRegisterValue(const QByteArray &frame);

}  // namespace fuzz

#endif  // MODBUS_FUZZ_FRAME_CHECK_H
