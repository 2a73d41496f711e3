#pragma once
// Removing a name from its folder (unlink, and rmdir through AT_REMOVEDIR). -1 with errno.

namespace ferrovane::FVRemovals {

int unlink(const char* path);
int unlinkat(int dirFd, const char* name, int flags);

}  // namespace ferrovane::FVRemovals
