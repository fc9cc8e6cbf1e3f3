// SPDX-License-Identifier: MIT
// RS-485 direction control: the kernel's RS-485 mode of a serial port (TIOCSRS485), for boards
// whose UART drives the transceiver's direction with RTS.
#ifndef MODBUS_ASCII_HOST_RS485_H
#define MODBUS_ASCII_HOST_RS485_H

#include <linux/serial.h>

#include <QString>
#include <functional>

#include "host_options.h"

// The kernel's record for the settings.
serial_rs485 Rs485Config(const Rs485Settings &settings);

// The settings a record holds.
Rs485Settings Rs485SettingsOf(const serial_rs485 &config);

// Hands a record to the port's driver and reads back, into config, what the driver accepted
// (drivers adjust what they cannot do: delays capped, RTS levels fixed): 0, or the errno of a
// refusal. The seam through which tests see what the kernel would get and give.
using Rs485Apply = std::function<int(int descriptor, serial_rs485 &config)>;
// The real one: ioctl(TIOCSRS485), then ioctl(TIOCGRS485).
int KernelRs485Apply(int descriptor, serial_rs485 &config);

// Puts the port in RS-485 mode and returns the settings in force; a refusal throws ToolError
// naming the port, RS-485 and the reason.
Rs485Settings ApplyRs485(int descriptor, const QString &device, const Rs485Settings &settings,
                         const Rs485Apply &apply = KernelRs485Apply);

// The settings in words, as --verbose prints them.
QString Rs485Text(const Rs485Settings &settings);

#endif  // MODBUS_ASCII_HOST_RS485_H
