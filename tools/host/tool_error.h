// The one error type of the host tool: a message for the user and the exit status to end with.
#ifndef MODBUS_ASCII_HOST_TOOL_ERROR_H
#define MODBUS_ASCII_HOST_TOOL_ERROR_H

#include <QString>
#include <stdexcept>

// Exit statuses of the tool.
enum ExitStatus : int {
    kExitCompleted = 0,
    kExitAbandoned = 1,  // requests were abandoned after their retries (link failures)
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

#endif  // MODBUS_ASCII_HOST_TOOL_ERROR_H
