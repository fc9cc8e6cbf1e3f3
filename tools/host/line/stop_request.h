// SPDX-License-Identifier: MIT
// Ctrl-C and SIGTERM: a flag that every wait of the tool reads, so that a run ends within a
// fraction of a second whatever the line does.
#ifndef MODBUS_ASCII_HOST_STOP_REQUEST_H
#define MODBUS_ASCII_HOST_STOP_REQUEST_H

// Makes SIGINT and SIGTERM set the stop flag instead of ending the process, so that the run
// still prints its tables and summary.
void InstallStopHandlers();

// True once SIGINT or SIGTERM has arrived.
bool StopRequested();

#endif  // MODBUS_ASCII_HOST_STOP_REQUEST_H
