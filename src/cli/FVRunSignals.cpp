#include "cli/FVRunSignals.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

namespace ferrovane::FVRunSignals {

namespace {

sigset_t cancellingSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
    return set;
}

}  // namespace

void block() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set = cancellingSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void listen(std::function<void(int signal)> onSignal) {
    // Detached: it waits for as long as the process lives, and the process ends without it.
    std::thread([onSignal = std::move(onSignal)] {
        const sigset_t set = cancellingSignals();
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) == 0) onSignal(signal);
        }
    }).detach();
}

}  // namespace ferrovane::FVRunSignals
