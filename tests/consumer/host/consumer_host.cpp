// SPDX-License-Identifier: MIT
// A host built against the installed driver: one cyclic read of holding register 0 of
// station 1, answered by hand, then read back from the image. Prints the path of the driver
// library it runs with and exits 0 only when every step gave the expected result.
#include <dlfcn.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdio>

#include "modbus_ascii_master_api.h"

namespace {

int Fail(const char *step) {
    std::fprintf(stderr, "consumer host: %s\n", step);
    return 1;
}

int IgnoreCompletion(int, int, int, int) {
    return 0;
}

}  // namespace

int main() {
    Dl_info where{};
    if (dladdr(reinterpret_cast<void *>(&SetComInfo), &where) == 0) return Fail("dladdr");
    std::printf("driver: %s\n", where.dli_fname);

    ComInfo info;
    info.maxFrameWords = 100;
    info.defaultStation = 1;
    info.retryLimit = 2;
    info.workMode = 2;
    SetComInfo(&info);
    RegistCallBackFuncIntf(IgnoreCompletion, 0);

    Keyboard variable;
    variable.area = QStringLiteral("4x");
    variable.address = 0;
    variable.length = 1;
    QList<Keyboard> variables{variable};
    if (ReCreatReadVarList(&variables) != 1) return Fail("ReCreatReadVarList");

    const Protocol *request = ComCommunication();
    if (request == nullptr) return Fail("ComCommunication returned no frame");
    if (request->frame.left(request->frameLength) != QByteArray(":010300000001FB\r\n")) {
        return Fail("unexpected request frame");
    }
    QByteArray reply(":010302002AD0\r\n");
    if (DataCom(&reply) != 1) return Fail("DataCom did not accept the reply");

    QByteArray value;
    if (GetRegisterData(QStringLiteral("4x"), 0, 1, value, 1) != 1) return Fail("GetRegisterData");
    if (value != QByteArray("\x2a\x00", 2)) return Fail("unexpected register value");
    std::printf("holding register 0 = %d\n", value.at(0));
    return 0;
}
