#include "fs/FVRemovals.h"

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVRemovals {

int unlink(const char* path) { return ::unlink(path); }
int unlinkat(int dirFd, const char* name, int flags) { return ::unlinkat(dirFd, name, flags); }

}  // namespace ferrovane::FVRemovals
