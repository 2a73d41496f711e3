#pragma once
// The one helper for inode flags, the ones a user sees with lsattr and changes with chattr
// (immutable, append-only, no-dump, ...), through FS_IOC_GETFLAGS and FS_IOC_SETFLAGS. Where the
// file system has no flags or the process may not change them, nothing changes.

#include "fs/FVFileDescriptor.h"

#include <string>

namespace ferrovane::FVInodeFlags {

// A real descriptor of the entry name in the folder dirFd, for its flags, never following a
// symbolic link. Only regular files and folders are opened: opening a device could have side
// effects, and links and special files have no flags.
FVFd openForFlags(int dirFd, const std::string& name);
// Sets the immutable flag.
void setImmutable(int fd);
// Clears every flag that refuses a rename, a removal or a write (immutable and append-only);
// returns whether the item had one.
bool clearLocking(int fd);
// The same for the folder fd and everything below it.
void clearLockingBelow(int fd);

// Whether the entry name in dirFd (or a path, with AT_FDCWD) has the no-dump flag (chattr +d).
// Read from statx where the file system reports it there, else through a descriptor; a link, a
// special file or flags that cannot be read have none.
bool hasNoDump(int dirFd, const char* name);

// Whether the item has any of the flags a copy carries; true when they cannot be read.
bool hasCopiedFlags(int fd);

// Copies the flags of one item to another; both descriptors must be real ones. Reading fails
// where the source's file system has no flags; the destination is then given none of them.
// Writing is skipped when the destination already has the wanted flags, so file systems without
// flags succeed for items without flags. A destination known to have none of the carried flags
// (destinationHasCopiedFlags false) is not even read when the source has none either.
struct CloneResult {
    bool readOK;
    bool writeOK;
};
CloneResult clone(int sourceFd, int destinationFd, bool destinationHasCopiedFlags = true);

// The same by path, for the run's steps that lock and unlock items. Paths may be of any length.
// The immutable flag; where it cannot be set, nothing happens. Symbolic links and special files
// have no flags and are left alone.
void lockFile(const std::string& path);
// clearLocking by path; returns whether the item had such a flag.
bool unlockFile(const std::string& path);
// The same for the entry name inside the folder dirFd (never following a symbolic link); an
// empty name unlocks dirFd itself, which must then be a real (not O_PATH) descriptor.
bool unlockFileAt(int dirFd, const std::string& name);
// The item and everything below it, without following symbolic links.
void unlockRecursively(const std::string& path);
void unlockRecursivelyAt(int dirFd, const std::string& name);

}  // namespace ferrovane::FVInodeFlags
