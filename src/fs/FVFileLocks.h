#pragma once
// Advisory whole-file locks (flock). -1 with errno.

namespace ferrovane::FVFileLocks {

// operation: LOCK_SH, LOCK_EX or LOCK_UN, with LOCK_NB not to wait.
int flock(int fd, int operation);

}  // namespace ferrovane::FVFileLocks
