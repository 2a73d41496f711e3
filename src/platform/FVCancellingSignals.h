#pragma once
// The signals that cancel a run: SIGINT (Ctrl-C), SIGTERM (a service manager stopping it) and
// SIGHUP (its terminal closed). A run blocks them to take them on one thread; a command it starts
// gets them back at their defaults.

#include <signal.h>
#include <spawn.h>

namespace ferrovane::FVCancellingSignals {

inline sigset_t set() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    return signals;
}

// Sets up a spawned command to start with nothing blocked and the cancelling signals and SIGPIPE
// (which a run ignores) at their defaults; returns the spawn flags that this needs.
inline short restoreDefaultsInChild(posix_spawnattr_t& attributes) {
    sigset_t none, defaults = set();
    sigemptyset(&none);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    return POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
}

}  // namespace ferrovane::FVCancellingSignals
