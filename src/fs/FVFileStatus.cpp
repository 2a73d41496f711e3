#include "fs/FVFileStatus.h"

#include "fs/FVFileDescriptor.h"

#include <unistd.h>

#include <cerrno>

namespace ferrovane::FVFileStatus {

int stat(const char* path, struct stat* st) { return ::stat(path, st); }
int lstat(const char* path, struct stat* st) { return ::lstat(path, st); }
int fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int fstatat(int dirFd, const char* name, struct stat* st, int flags) { return ::fstatat(dirFd, name, st, flags); }

int statx(int dirFd, const char* name, int flags, unsigned int mask, struct statx* stx) {
    return ::statx(dirFd, name, flags, mask, stx);
}

int access(const char* path, int mode) { return ::access(path, mode); }
int faccessat(int dirFd, const char* name, int mode, int flags) { return ::faccessat(dirFd, name, mode, flags); }

FVExistence existenceAtPath(const std::string& path, int* error, mode_t* type) {
    struct stat st {};
    int result = FVLongPath::lstat(path, &st) == 0 ? 0 : errno;
    if (error) *error = result;
    if (type) *type = st.st_mode & S_IFMT;
    if (result == 0) return FVExistence::Exists;
    return result == ENOENT || result == ENOTDIR ? FVExistence::Missing : FVExistence::Unknown;
}

bool pathExists(const std::string& path) { return existenceAtPath(path) == FVExistence::Exists; }

}  // namespace ferrovane::FVFileStatus
