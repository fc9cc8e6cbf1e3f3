// SPDX-License-Identifier: MIT
// Fuzzing of the host's value calls in cache mode and of the address text functions.
#ifndef MODBUS_FUZZ_VALUES_AND_TEXTS_H
#define MODBUS_FUZZ_VALUES_AND_TEXTS_H

#include "fuzz_input.h"
#include "modbus_ascii_master.h"

namespace fuzz {

// A host write and a host read of the same span; a write inside its area reads back.
void FuzzHostValues(InputReader &in, const ComInfo &info);
// An address text of arbitrary UTF-16 through the parsers, and a multi-copy.
void FuzzAddressTexts(InputReader &in);

}  // namespace fuzz

#endif  // MODBUS_FUZZ_VALUES_AND_TEXTS_H
