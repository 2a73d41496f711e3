#pragma once
// Moving an entry to another name (rename and its relatives). -1 with errno.

namespace ferrovane::FVRenames {

int rename(const char* from, const char* to);
int renameat(int fromDirFd, const char* from, int toDirFd, const char* to);
// flags: RENAME_NOREPLACE, RENAME_EXCHANGE ...
int renameat2(int fromDirFd, const char* from, int toDirFd, const char* to, unsigned int flags);

}  // namespace ferrovane::FVRenames
