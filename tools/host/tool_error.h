// SPDX-License-Identifier: MIT
// The one error type of the host tool: a message for the user and the exit status to end with.
#ifndef MODBUS_ASCII_HOST_TOOL_ERROR_H
#define MODBUS_ASCII_HOST_TOOL_ERROR_H

#include <QString>
#include <stdexcept>

// Exit statuses of the tool.
enum ExitStatus : int {
    kExitCompleted = 0,
    kExitAbandoned = 1,  // requests abandoned after their retries, or writes not acknowledged
    kExitUsage = 2,      // bad options, variables or library, or a serial port error
};

class ToolError : public std::runtime_error {
public:
    explicit ToolError(const QString &message)
        : std::runtime_error(message.toStdString()), message_(message) {}
    const QString &message() const { return message_; }

private:
    QString message_;
};

// text as a whole number within [minimum, maximum]; otherwise an error naming what it is.
inline int WholeNumber(const QString &text, const QString &what, int minimum, int maximum) {
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    if (!ok || value < minimum || value > maximum) {
        throw ToolError(QStringLiteral("%1 '%2' is not a whole number from %3 to %4")
                            .arg(what, text, QString::number(minimum), QString::number(maximum)));
    }
    return value;
}

#endif  // MODBUS_ASCII_HOST_TOOL_ERROR_H
