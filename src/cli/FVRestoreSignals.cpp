#include "cli/FVRestoreSignals.h"

#include "cli/FVExitStatus.h"
#include "cli/FVRunSignals.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace ferrovane::FVRestoreSignals {

namespace {

std::atomic<int> firstSignal{0};
// Keeps a signal's exit and the start of the copy apart.
std::mutex copyStart;
bool copying = false;
std::function<void()> cancelCopy;

void onSignal(int signal) {
    std::lock_guard lock(copyStart);
    if (!copying) std::_Exit(FVExitStatus::interrupted(signal));
    int none = 0;
    firstSignal.compare_exchange_strong(none, signal);
    if (cancelCopy) cancelCopy();
}

}  // namespace

void listen() {
    FVRunSignals::block();
    FVRunSignals::listen(onSignal);
}

void copyStarted(std::function<void()> cancel) {
    std::lock_guard lock(copyStart);
    copying = true;
    cancelCopy = std::move(cancel);
}

void copyFinished() {
    std::lock_guard lock(copyStart);
    cancelCopy = nullptr;
}

int cancellingSignal() { return firstSignal.load(); }

}  // namespace ferrovane::FVRestoreSignals
