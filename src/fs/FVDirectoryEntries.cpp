#include "fs/FVDirectoryEntries.h"

#include <unistd.h>

namespace ferrovane::FVDirectoryEntries {

DIR* opendir(const char* path) { return ::opendir(path); }
DIR* fdopendir(int fd) { return ::fdopendir(fd); }
dirent* readdir(DIR* dir) { return ::readdir(dir); }
int closedir(DIR* dir) { return ::closedir(dir); }
int dirfd(DIR* dir) { return ::dirfd(dir); }
ssize_t getdents64(int fd, void* buffer, size_t size) { return ::getdents64(fd, buffer, size); }

}  // namespace ferrovane::FVDirectoryEntries
