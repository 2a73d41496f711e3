#pragma once
// Opening and closing descriptors. Thin: -1 with errno as the kernel sets it.

#include <sys/types.h>

namespace ferrovane::FVOpenFiles {

int open(const char* path, int flags, mode_t mode = 0);
int openat(int dirFd, const char* name, int flags, mode_t mode = 0);
int close(int fd);
// A second descriptor of the same open file, closed on exec.
int duplicate(int fd);

}  // namespace ferrovane::FVOpenFiles
