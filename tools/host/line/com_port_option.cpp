// SPDX-License-Identifier: MIT
#include "com_port_option.h"

#include <QStringList>

namespace {

// RFC 2217's numbers for parity and stop size.
constexpr char kParityNone = 1;
constexpr char kParityOdd = 2;
constexpr char kParityEven = 3;
constexpr char kOneStopBit = 1;
constexpr char kTwoStopBits = 2;

QByteArray BaudRateValue(quint32 baudRate) {
    QByteArray value(4, '\0');
    for (int i = 3; i >= 0; --i, baudRate >>= 8) value[i] = static_cast<char>(baudRate & 0xFF);
    return value;
}

char ParityValue(char parity) {
    if (parity == 'E') return kParityEven;
    if (parity == 'O') return kParityOdd;
    return kParityNone;
}

QString SettingName(int command) {
    switch (command) {
        case kSetBaudRate:
            return QStringLiteral("baud rate");
        case kSetDataSize:
            return QStringLiteral("data bits");
        case kSetParity:
            return QStringLiteral("parity");
        default:
            return QStringLiteral("stop bits");
    }
}

QString ParityText(int value) {
    static const char *const kNames[] = {"none", "odd", "even", "mark", "space"};
    if (value >= 1 && value <= 5) return QLatin1String(kNames[value - 1]);
    return QStringLiteral("value %1").arg(value);
}

QString StopSizeText(int value) {
    if (value == 3) return QStringLiteral("1.5");
    return QString::number(value);
}

// A value as the setting's own words; one of an unexpected size as its bytes in hex.
QString ValueText(int command, const QByteArray &value) {
    const int expectedSize = command == kSetBaudRate ? 4 : 1;
    if (value.size() != expectedSize) {
        return QStringLiteral("bytes %1").arg(QString::fromLatin1(value.toHex(' ')));
    }
    if (command == kSetBaudRate) {
        quint32 baudRate = 0;
        for (char byte : value) baudRate = baudRate << 8 | static_cast<unsigned char>(byte);
        return QString::number(baudRate);
    }
    const int number = static_cast<unsigned char>(value[0]);
    if (command == kSetParity) return ParityText(number);
    if (command == kSetStopSize) return StopSizeText(number);
    return QString::number(number);
}

}  // namespace

QByteArray ComPortSubnegotiation(int command, const QByteArray &value) {
    QByteArray wire;
    wire.append(static_cast<char>(telnet::kIac));
    wire.append(static_cast<char>(telnet::kSb));
    wire.append(static_cast<char>(telnet::kComPort));
    wire.append(static_cast<char>(command));
    wire.append(TelnetCodec::escape(value));
    wire.append(static_cast<char>(telnet::kIac));
    wire.append(static_cast<char>(telnet::kSe));
    return wire;
}

QList<ComPortSetting> ComPortSettings(const SerialSettings &settings) {
    return {
        {kSetBaudRate, BaudRateValue(static_cast<quint32>(settings.baudRate))},
        {kSetDataSize, QByteArray(1, static_cast<char>(settings.dataBits))},
        {kSetParity, QByteArray(1, ParityValue(settings.parity))},
        {kSetStopSize, QByteArray(1, settings.stopBits == 2 ? kTwoStopBits : kOneStopBit)},
    };
}

QByteArray ComPortSettingsRequest(const SerialSettings &settings) {
    QByteArray wire;
    for (const ComPortSetting &setting : ComPortSettings(settings)) {
        wire.append(ComPortSubnegotiation(setting.command, setting.value));
    }
    return wire;
}

ComPortSettingsCheck::ComPortSettingsCheck(const SerialSettings &settings)
    : asked_(ComPortSettings(settings)) {
    for (int i = 0; i < asked_.size(); ++i) answered_.append(std::nullopt);
}

// A later answer to the same command replaces an earlier one: the last word is in force.
void ComPortSettingsCheck::note(const ComPortMessage &message) {
    for (int i = 0; i < asked_.size(); ++i) {
        if (message.command == asked_[i].command + kServerCommandOffset) {
            answered_[i] = message.value;
        }
    }
}

bool ComPortSettingsCheck::complete() const {
    for (const std::optional<QByteArray> &answer : answered_) {
        if (!answer) return false;
    }
    return true;
}

std::optional<QString> ComPortSettingsCheck::refusal() const {
    for (int i = 0; i < asked_.size(); ++i) {
        const ComPortSetting &asked = asked_[i];
        if (!answered_[i] || *answered_[i] == asked.value) continue;
        return QStringLiteral("%1 %2 (it answered %3)")
            .arg(SettingName(asked.command), ValueText(asked.command, asked.value),
                 ValueText(asked.command, *answered_[i]));
    }
    return std::nullopt;
}

QString ComPortSettingsCheck::firstUnanswered() const {
    for (int i = 0; i < asked_.size(); ++i) {
        if (!answered_[i]) return SettingName(asked_[i].command);
    }
    return QString();
}

QString ComPortSettingsCheck::inForce() const {
    QStringList words;
    for (int i = 0; i < asked_.size(); ++i) {
        const int command = asked_[i].command;
        const QString value =
            answered_[i] ? ValueText(command, *answered_[i]) : QStringLiteral("?");
        words.append(command == kSetBaudRate
                         ? QStringLiteral("%1 baud").arg(value)
                         : QStringLiteral("%1 %2").arg(SettingName(command), value));
    }
    return words.join(QStringLiteral(", "));
}
