#pragma once
// Hard and symbolic links: making them and reading a symbolic link's text. -1 with errno.

#include <sys/types.h>

#include <cstddef>

namespace ferrovane::FVLinks {

int linkat(int fromDirFd, const char* from, int toDirFd, const char* to, int flags);
int symlinkat(const char* target, int dirFd, const char* name);
ssize_t readlinkat(int dirFd, const char* name, char* buffer, size_t size);

}  // namespace ferrovane::FVLinks
