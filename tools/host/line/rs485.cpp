// SPDX-License-Identifier: MIT
// The kernel's RS-485 mode: the record, the ioctl and its refusal.
#include "rs485.h"

#include <sys/ioctl.h>

#include <cerrno>

#include "tool_error.h"

serial_rs485 Rs485Config(const Rs485Settings &settings) {
    serial_rs485 config{};
    config.flags = SER_RS485_ENABLED;
    // RTS is driven to one level while sending and to the other after it.
    config.flags |= settings.rtsHighOnSend ? SER_RS485_RTS_ON_SEND : SER_RS485_RTS_AFTER_SEND;
    config.delay_rts_before_send = static_cast<__u32>(settings.delayBeforeMs);
    config.delay_rts_after_send = static_cast<__u32>(settings.delayAfterMs);
    return config;
}

Rs485Settings Rs485SettingsOf(const serial_rs485 &config) {
    Rs485Settings settings;
    settings.enabled = (config.flags & SER_RS485_ENABLED) != 0;
    settings.rtsHighOnSend = (config.flags & SER_RS485_RTS_ON_SEND) != 0;
    settings.delayBeforeMs = static_cast<int>(config.delay_rts_before_send);
    settings.delayAfterMs = static_cast<int>(config.delay_rts_after_send);
    return settings;
}

int KernelRs485Apply(int descriptor, serial_rs485 &config) {
    if (ioctl(descriptor, TIOCSRS485, &config) != 0) return errno;
    return ioctl(descriptor, TIOCGRS485, &config) == 0 ? 0 : errno;
}

Rs485Settings ApplyRs485(int descriptor, const QString &device, const Rs485Settings &settings,
                         const Rs485Apply &apply) {
    serial_rs485 config = Rs485Config(settings);
    const int error = apply(descriptor, config);
    if (error != 0) {
        throw ToolError(QStringLiteral("cannot put serial port %1 in RS-485 mode: %2")
                            .arg(device, qt_error_string(error)));
    }
    return Rs485SettingsOf(config);
}

QString Rs485Text(const Rs485Settings &settings) {
    return QStringLiteral("RS-485 mode: RTS %1 while sending, %2 ms before, %3 ms after")
        .arg(settings.rtsHighOnSend ? QStringLiteral("high") : QStringLiteral("low"))
        .arg(settings.delayBeforeMs)
        .arg(settings.delayAfterMs);
}
