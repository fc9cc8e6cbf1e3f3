// SPDX-License-Identifier: MIT
// A yardstick for the cyclic read transaction: only the work that the host interface demands
// of any implementation, with no protocol logic at all.
#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QMutexLocker>

#include "modbus_ascii_master.h"

namespace {

// Per transaction the interface asks for: a Protocol appended to a QList (its own element,
// holding a copy of the request and the frame's 17 bytes), handed out by pointer and removed
// again, the list lock taken by ComCommunication and by DataCom, and the image lock taken
// around the store. Each at its cheapest: the request copied by constructor and moved in, the
// 17 bytes written into the buffer of the frame before, so that no frame is allocated.
void BM_InterfaceFloor(benchmark::State &state) {
    QMutex listMutex;
    QMutex imageMutex;
    QList<Protocol> sendList;
    RW_VAR request;
    request.area = QStringLiteral("4x");
    request.auxName = QStringLiteral("tag");
    request.station = 1;
    request.address = 1000;
    request.count = 1;
    unsigned short image[1] = {0};
    QByteArray spare(17, ':');
    for (auto _ : state) {
        {
            QMutexLocker lock(&listMutex);
            sendList.append(Protocol());
            Protocol &frame = sendList.last();
            frame.frame.swap(spare);
            frame.frameLength = 17;
            frame.var = RW_VAR(request);
        }
        Protocol *handedOut = &sendList.first();
        benchmark::DoNotOptimize(handedOut);
        {
            QMutexLocker lock(&listMutex);
            {
                QMutexLocker imageLock(&imageMutex);
                image[0] = static_cast<unsigned short>(handedOut->frameLength);
            }
            spare.swap(handedOut->frame);
            sendList.removeFirst();
        }
        benchmark::DoNotOptimize(image);
    }
}
BENCHMARK(BM_InterfaceFloor);

}  // namespace
