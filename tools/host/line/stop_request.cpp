// SPDX-License-Identifier: MIT
// The stop flag set by SIGINT and SIGTERM.
#include "stop_request.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void RequestStop(int) {
    stopRequested = 1;
}

}  // namespace

void InstallStopHandlers() {
    struct sigaction action {};
    action.sa_handler = RequestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested() {
    return stopRequested != 0;
}
