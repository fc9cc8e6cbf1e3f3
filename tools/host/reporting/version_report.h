// SPDX-License-Identifier: MIT
// modbus-ascii-host --version: the tool's version, its Qt flavour and the driver it loaded.
#ifndef MODBUS_ASCII_HOST_VERSION_REPORT_H
#define MODBUS_ASCII_HOST_VERSION_REPORT_H

#include <QString>

#include "driver_api.h"

// The version a shared library's file name carries: "1.0.0" for libX.so.1.0.0, "1" for
// libX.so.1; empty when the name has none.
QString LibraryFileVersion(const QString &fileName);

// The lines --version prints: this tool's version, the Qt it was built with and runs on, and
// the file the dynamic loader mapped for the driver (links resolved) with its version.
QString VersionReport(const DriverApi &api);

#endif  // MODBUS_ASCII_HOST_VERSION_REPORT_H
