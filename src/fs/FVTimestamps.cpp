#include "fs/FVTimestamps.h"

#include <fcntl.h>

namespace ferrovane::FVTimestamps {

int futimens(int fd, const struct timespec times[2]) { return ::futimens(fd, times); }
int utimensat(int dirFd, const char* name, const struct timespec times[2], int flags) {
    return ::utimensat(dirFd, name, times, flags);
}

}  // namespace ferrovane::FVTimestamps
