// SPDX-License-Identifier: MIT
// The image's four arrays lie next to each other in the driver object, so an access that
// runs off one of them lands in its neighbour, where AddressSanitizer can't see it. The
// harness keeps the elements at both ends of every array and checks that a call that concerns
// one table leaves the ends of the other three as they were.
#ifndef MODBUS_FUZZ_IMAGE_EDGES_H
#define MODBUS_FUZZ_IMAGE_EDGES_H

#include <cstring>

#include "frame_check.h"
#include "modbus_ascii_master.h"

namespace fuzz {

class ImageEdges {
public:
    ImageEdges() {
        const Modbus_ASCII_Master &d = PLC_driver;
        keep(0, d.coilArea, sizeof d.coilArea);
        keep(1, d.inputBitArea, sizeof d.inputBitArea);
        keep(2, d.inputRegArea, sizeof d.inputRegArea);
        keep(3, d.holdingRegArea, sizeof d.holdingRegArea);
    }

    // Fails when a table other than `table` (-1: none) has changed at its ends.
    void CheckOnlyTouched(int table) const {
        const ImageEdges now;
        for (int t = 0; t < 4; ++t) {
            if (t != table && std::memcmp(edges_[t], now.edges_[t], sizeof edges_[t]) != 0) {
                Fail("a call changed an image table it does not concern");
            }
        }
    }

private:
    static constexpr size_t kEdgeBytes = 32;

    void keep(int table, const void *array, size_t size) {
        const unsigned char *bytes = static_cast<const unsigned char *>(array);
        std::memcpy(edges_[table], bytes, kEdgeBytes);
        std::memcpy(edges_[table] + kEdgeBytes, bytes + size - kEdgeBytes, kEdgeBytes);
    }

    unsigned char edges_[4][2 * kEdgeBytes];
};

}  // namespace fuzz

#endif  // MODBUS_FUZZ_IMAGE_EDGES_H
