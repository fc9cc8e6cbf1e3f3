// SPDX-License-Identifier: MIT
#include "version_report.h"

#include <dlfcn.h>

#include <QFileInfo>
#include <QRegularExpression>
#include <QtGlobal>

#include "tool_error.h"

namespace {

// The driver exports no version of its own; the loader knows which file holds its code.
QString LoadedLibraryFile(const DriverApi &api) {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(api.setComInfo), &info) == 0 || info.dli_fname == nullptr) {
        throw ToolError(
            QStringLiteral("cannot tell which file the driver library was loaded from"));
    }
    const QString mapped = QString::fromLocal8Bit(info.dli_fname);
    const QString resolved = QFileInfo(mapped).canonicalFilePath();
    return resolved.isEmpty() ? mapped : resolved;
}

}  // namespace

QString LibraryFileVersion(const QString &fileName) {
    static const QRegularExpression kVersionSuffix(QStringLiteral("\\.so\\.([0-9]+(\\.[0-9]+)*)$"));
    return kVersionSuffix.match(fileName).captured(1);
}

QString VersionReport(const DriverApi &api) {
    const QString library = LoadedLibraryFile(api);
    const QString version = LibraryFileVersion(library);
    return QStringLiteral(
               "modbus-ascii-host %1\n"
               "Qt flavour: Qt %2 (built with Qt %3, running on Qt %4)\n"
               "driver library: %5 (version %6)\n")
        .arg(QStringLiteral(MODBUS_VERSION))
        .arg(QT_VERSION >> 16)
        .arg(QStringLiteral(QT_VERSION_STR), QString::fromLatin1(qVersion()), library,
             version.isEmpty() ? QStringLiteral("unknown: none in the file name") : version);
}
