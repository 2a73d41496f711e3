#pragma once
// Opening and closing descriptors and streams. Thin: -1 with errno as the kernel sets it.

#include <sys/types.h>

#include <cstdio>

namespace ferrovane::FVOpenFiles {

int open(const char* path, int flags, mode_t mode = 0);
int openat(int dirFd, const char* name, int flags, mode_t mode = 0);
int close(int fd);
// A buffered stream (fopen's modes, "e" for close-on-exec); nullptr with errno.
FILE* fopen(const char* path, const char* mode);
int fclose(FILE* stream);
// A second descriptor of the same open file, closed on exec.
int duplicate(int fd);

}  // namespace ferrovane::FVOpenFiles
