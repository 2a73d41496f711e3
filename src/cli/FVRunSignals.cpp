#include "cli/FVRunSignals.h"

#include "fs/FVTestHook.h"
#include "platform/FVCancellingSignals.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

namespace ferrovane::FVRunSignals {

void block() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set = FVCancellingSignals::set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void listen(std::function<void(int signal)> onSignal) {
    // Detached: it waits for as long as the process lives, and the process ends without it.
    std::thread([onSignal = std::move(onSignal)] {
        const sigset_t set = FVCancellingSignals::set();
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) continue;
            onSignal(signal);
            FVTestHook::reach("signal-taken");
        }
    }).detach();
}

}  // namespace ferrovane::FVRunSignals
