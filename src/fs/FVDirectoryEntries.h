#pragma once
// Reading a folder's entries: the C library's stream of them, or raw batches (getdents64) where
// the caller parses the records itself. Thin: nullptr or -1 with errno.

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>

namespace ferrovane::FVDirectoryEntries {

DIR* opendir(const char* path);
// Takes the descriptor; closedir closes it.
DIR* fdopendir(int fd);
dirent* readdir(DIR* dir);
int closedir(DIR* dir);
int dirfd(DIR* dir);
// Up to size bytes of linux_dirent64 records; 0 at the end.
ssize_t getdents64(int fd, void* buffer, size_t size);

}  // namespace ferrovane::FVDirectoryEntries
