#pragma once
// What the kernel says of an item: its status (stat and its relatives), its birth time and
// whether it may be reached. Thin: each call answers as the kernel does (-1 with errno), the
// caller decides what a failure means.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace ferrovane {

// What can be said of an item's existence. Only Missing is a definite answer that the item is
// gone; a lookup that fails for any other reason (no permission, an I/O error) is Unknown.
enum class FVExistence { Exists, Missing, Unknown };

namespace FVFileStatus {

int stat(const char* path, struct stat* st);
int lstat(const char* path, struct stat* st);
int fstat(int fd, struct stat* st);
int fstatat(int dirFd, const char* name, struct stat* st, int flags);
int statx(int dirFd, const char* name, int flags, unsigned int mask, struct statx* stx);
int access(const char* path, int mode);
int faccessat(int dirFd, const char* name, int mode, int flags);

// Paths of any length, not following a final symbolic link. type: the item's S_IFMT bits where
// it exists.
FVExistence existenceAtPath(const std::string& path, int* error = nullptr, mode_t* type = nullptr);
// Whether anything (a dangling link too) is at the path.
bool pathExists(const std::string& path);

}  // namespace FVFileStatus

}  // namespace ferrovane
