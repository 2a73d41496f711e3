#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVOpenFiles {

int open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int openat(int dirFd, const char* name, int flags, mode_t mode) { return ::openat(dirFd, name, flags, mode); }
int close(int fd) { return ::close(fd); }
FILE* fopen(const char* path, const char* mode) { return std::fopen(path, mode); }
int fclose(FILE* stream) { return std::fclose(stream); }
int duplicate(int fd) { return ::fcntl(fd, F_DUPFD_CLOEXEC, 0); }

}  // namespace ferrovane::FVOpenFiles
