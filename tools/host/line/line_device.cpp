// SPDX-License-Identifier: MIT
// Which device --port names.
#include "line_device.h"

#include "link_address.h"
#include "rfc2217_device.h"
#include "serial_device.h"
#include "tcp_device.h"

std::unique_ptr<LineDevice> MakeLineDevice(const SerialSettings &settings) {
    const LinkAddress address = ParseLinkAddress(settings.device);
    switch (address.kind) {
        case LinkKind::RawTcp:
            return std::make_unique<TcpDevice>(address, settings);
        case LinkKind::Rfc2217:
            return std::make_unique<Rfc2217Device>(address, settings);
        case LinkKind::Serial:
            break;
    }
    return std::make_unique<SerialDevice>(settings);
}
