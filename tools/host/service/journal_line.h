// SPDX-License-Identifier: MIT
// One line on standard error for each event of a run (a station set aside or back, the port
// lost or back, a fatal error), in the form the journal keeps well when systemd reads it.
#ifndef MODBUS_ASCII_HOST_JOURNAL_LINE_H
#define MODBUS_ASCII_HOST_JOURNAL_LINE_H

#include <QString>

// The priorities of syslog(3), as the journal reads them from a "<N>" prefix.
enum class EventPriority : int { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// "<4>modbus-ascii-host: MESSAGE" when standard error goes to the journal ($JOURNAL_STREAM,
// which stamps every line itself); "modbus-ascii-host: TIME: MESSAGE" otherwise.
QString EventLine(EventPriority priority, const QString &message, bool toJournal);

// Whether systemd connected standard error to the journal.
bool StandardErrorGoesToJournal();

// Prints EventLine to standard error.
void PrintEvent(EventPriority priority, const QString &message);

#endif  // MODBUS_ASCII_HOST_JOURNAL_LINE_H
