#pragma once
// Setting an item's owner and group. -1 with errno.

#include <sys/types.h>

namespace ferrovane::FVOwnership {

int lchown(const char* path, uid_t owner, gid_t group);
int fchown(int fd, uid_t owner, gid_t group);
int fchownat(int dirFd, const char* name, uid_t owner, gid_t group, int flags);

}  // namespace ferrovane::FVOwnership
