// SPDX-License-Identifier: MIT
// Telling systemd how a run stands, through the socket it names in $NOTIFY_SOCKET: READY=1,
// STATUS=, WATCHDOG=1 and STOPPING=1. Without that socket (not run by systemd) it does nothing.
#ifndef MODBUS_ASCII_HOST_SERVICE_NOTIFIER_H
#define MODBUS_ASCII_HOST_SERVICE_NOTIFIER_H

#include <sys/socket.h>
#include <sys/un.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>

#include "run_stats.h"

class ServiceNotifier {
public:
    // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, as systemd sets them.
    ServiceNotifier();
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier &) = delete;
    ServiceNotifier &operator=(const ServiceNotifier &) = delete;

    void ready(const QString &status);
    void status(const QString &status);
    // STATUS= at most once a second: the one after every pass.
    void progress(const QString &status);
    void stopping();
    // On every turn of the loop: WATCHDOG=1 once half the watchdog's time has passed since the
    // last one, so that a loop that stops turning stops the pings.
    void turn();

    // Milliseconds between pings; 0 without a watchdog for this process.
    qint64 pingIntervalMs() const { return pingIntervalMs_; }

private:
    void send(const QByteArray &message);

    int socket_ = -1;
    sockaddr_un address_{};
    socklen_t addressLength_ = 0;
    qint64 pingIntervalMs_ = 0;
    QElapsedTimer sincePing_;
    QElapsedTimer sinceProgress_;
};

// "pass 12, 99.8 % answered, 1 station set aside": the STATUS= of a run after a pass.
QString RunStatusText(const RunStats &stats);

#endif  // MODBUS_ASCII_HOST_SERVICE_NOTIFIER_H
