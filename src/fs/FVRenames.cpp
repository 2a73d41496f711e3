#include "fs/FVRenames.h"

#include <fcntl.h>
#include <stdio.h>

namespace ferrovane::FVRenames {

int rename(const char* from, const char* to) { return ::rename(from, to); }
int renameat(int fromDirFd, const char* from, int toDirFd, const char* to) {
    return ::renameat(fromDirFd, from, toDirFd, to);
}
int renameat2(int fromDirFd, const char* from, int toDirFd, const char* to, unsigned int flags) {
    return ::renameat2(fromDirFd, from, toDirFd, to, flags);
}

}  // namespace ferrovane::FVRenames
