#pragma once
// Setting an item's access and modification times. -1 with errno.

#include <sys/stat.h>

namespace ferrovane::FVTimestamps {

int futimens(int fd, const struct timespec times[2]);
int utimensat(int dirFd, const char* name, const struct timespec times[2], int flags);

}  // namespace ferrovane::FVTimestamps
