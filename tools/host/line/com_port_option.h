// SPDX-License-Identifier: MIT
// The line settings as the COM-PORT option of RFC 2217 carries them: the SET commands a client
// sends (baud rate, data size, parity, stop size) and the check of the server's answers, which
// carry the command code + 100 and the value the server put in force.
#ifndef MODBUS_ASCII_HOST_COM_PORT_OPTION_H
#define MODBUS_ASCII_HOST_COM_PORT_OPTION_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

#include "host_options.h"
#include "telnet_codec.h"

enum ComPortCommand : int {
    kSetBaudRate = 1,
    kSetDataSize = 2,
    kSetParity = 3,
    kSetStopSize = 4,
};
// A server's answer to command n is command n + 100.
constexpr int kServerCommandOffset = 100;

// IAC SB COM-PORT-OPTION command value IAC SE, with IAC doubled in the value.
QByteArray ComPortSubnegotiation(int command, const QByteArray &value);

// One SET command and its value.
struct ComPortSetting {
    int command;
    QByteArray value;
};
// The four settings as RFC 2217 values (baud rate, data size, parity, stop size), in order.
QList<ComPortSetting> ComPortSettings(const SerialSettings &settings);

// The four SET commands of the settings, in the order they are sent.
QByteArray ComPortSettingsRequest(const SerialSettings &settings);

// Follows the server's answers to ComPortSettingsRequest.
class ComPortSettingsCheck {
public:
    explicit ComPortSettingsCheck(const SerialSettings &settings);

    // Takes a message from the server; anything but an answer to one of the four is left alone.
    void note(const ComPortMessage &message);
    bool complete() const;
    // The first setting answered with another value than asked, in words: "parity even (it
    // answered odd)"; nothing when every answer holds what was asked.
    std::optional<QString> refusal() const;
    // The name of the first setting not answered yet: "baud rate".
    QString firstUnanswered() const;
    // The answers in words: "19200 baud, data bits 8, parity odd, stop bits 1".
    QString inForce() const;

private:
    QList<ComPortSetting> asked_;
    QList<std::optional<QByteArray>> answered_;  // by the index of asked_
};

#endif  // MODBUS_ASCII_HOST_COM_PORT_OPTION_H
