#pragma once
// The signals that end a command-line backup or restore. SIGINT (Ctrl-C), SIGTERM (a service
// manager stopping it) and SIGHUP (its terminal closed) cancel the run the way Stop does in the
// window: nothing half-written stays behind, and the process exits with 128 + the signal's
// number. A reader that went away (SIGPIPE: `ferrovane /backup | head -1`) never ends a run:
// the failed write is only a lost line of output.

#include <functional>

namespace ferrovane::FVRunSignals {

// Blocks the cancelling signals and ignores SIGPIPE. Called before any other thread starts, so
// that every thread inherits the mask and only the listening thread ever takes them.
void block();

// Starts a thread that calls onSignal with each cancelling signal as it arrives.
void listen(std::function<void(int signal)> onSignal);

}  // namespace ferrovane::FVRunSignals
