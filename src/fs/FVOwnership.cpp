#include "fs/FVOwnership.h"

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVOwnership {

int lchown(const char* path, uid_t owner, gid_t group) { return ::lchown(path, owner, group); }
int fchown(int fd, uid_t owner, gid_t group) { return ::fchown(fd, owner, group); }
int fchownat(int dirFd, const char* name, uid_t owner, gid_t group, int flags) {
    return ::fchownat(dirFd, name, owner, group, flags);
}

}  // namespace ferrovane::FVOwnership
