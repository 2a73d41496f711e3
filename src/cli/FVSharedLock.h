#pragma once
// The destination's lock in shared mode for the commands that read it while they restore: they may
// run side by side, never beside a backup or a configuration change, so what they read cannot move.

#include "engine/config/FVDestinationLock.h"

#include <string>

namespace ferrovane::FVSharedLock {

// False, after saying why on standard error and with the exit status in *status, when the lock
// cannot be had. A destination without a lock file is used as it is.
bool acquire(const char* command, const std::string& destination, FVDestinationLock& lock, int* status);

}  // namespace ferrovane::FVSharedLock
