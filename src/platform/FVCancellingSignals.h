#pragma once
// The signals that cancel a run: SIGINT (Ctrl-C), SIGTERM (a service manager stopping it) and
// SIGHUP (its terminal closed). A run blocks them to take them on one thread; a command it starts
// gets them back at their defaults.

#include <signal.h>

namespace ferrovane::FVCancellingSignals {

inline sigset_t set() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    return signals;
}

}  // namespace ferrovane::FVCancellingSignals
