#include "fs/FVLinks.h"

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVLinks {

int linkat(int fromDirFd, const char* from, int toDirFd, const char* to, int flags) {
    return ::linkat(fromDirFd, from, toDirFd, to, flags);
}
int symlinkat(const char* target, int dirFd, const char* name) { return ::symlinkat(target, dirFd, name); }
ssize_t readlinkat(int dirFd, const char* name, char* buffer, size_t size) {
    return ::readlinkat(dirFd, name, buffer, size);
}

}  // namespace ferrovane::FVLinks
