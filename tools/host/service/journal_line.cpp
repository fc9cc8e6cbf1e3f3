// SPDX-License-Identifier: MIT
// Event lines for a terminal or for the journal.
#include "journal_line.h"

#include <sys/stat.h>

#include <QDateTime>
#include <QStringList>
#include <cstdio>

QString EventLine(EventPriority priority, const QString &message, bool toJournal) {
    if (toJournal) {
        return QStringLiteral("<%1>modbus-ascii-host: %2")
            .arg(static_cast<int>(priority))
            .arg(message);
    }
    return QStringLiteral("modbus-ascii-host: %1: %2")
        .arg(QDateTime::currentDateTime().toString(Qt::ISODateWithMs), message);
}

// $JOURNAL_STREAM holds "DEVICE:INODE" of the stream systemd gave; it still names standard
// error only while no one has redirected it.
bool StandardErrorGoesToJournal() {
    const QStringList stream = qEnvironmentVariable("JOURNAL_STREAM").split(QLatin1Char(':'));
    struct stat status {};
    if (stream.size() != 2 || fstat(2, &status) != 0) return false;
    return stream[0] == QString::number(status.st_dev) &&
           stream[1] == QString::number(status.st_ino);
}

void PrintEvent(EventPriority priority, const QString &message) {
    static const bool toJournal = StandardErrorGoesToJournal();
    std::fprintf(stderr, "%s\n", EventLine(priority, message, toJournal).toUtf8().constData());
}
