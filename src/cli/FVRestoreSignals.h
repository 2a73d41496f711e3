#pragma once
// The signals of a command-line restore. Until the copy starts nothing has been written: a signal
// then ends the process at once. Once it has started, a signal cancels the copy, and the restore
// exits with the status of the first signal that did.

#include <functional>

namespace ferrovane::FVRestoreSignals {

// Blocks the cancelling signals and starts listening. Called before the copy's threads start, so
// that none of them takes a signal.
void listen();

// From here on a signal calls cancel instead of ending the process.
void copyStarted(std::function<void()> cancel);
// The copy is over: a signal no longer has anything to cancel.
void copyFinished();

// The first signal that cancelled the copy; 0 while none has.
int cancellingSignal();

}  // namespace ferrovane::FVRestoreSignals
