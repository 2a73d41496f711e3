#include "fs/FVInodeFlags.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace ferrovane::FVInodeFlags {

namespace {

// Append-only refuses a rename and a removal just as immutable does.
constexpr int kLockingFlags = FS_IMMUTABLE_FL | FS_APPEND_FL;
constexpr int kCopiedFlags = FS_APPEND_FL | FS_IMMUTABLE_FL | FS_NODUMP_FL | FS_NOATIME_FL | FS_SYNC_FL |
                             FS_DIRSYNC_FL | FS_SECRM_FL | FS_UNRM_FL;

}  // namespace

FVFd openForFlags(int dirFd, const std::string& name) {
    if (name.empty()) return {};
    struct stat st {};
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return {};
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return {};
    return FVFd(openat(dirFd, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
}

void setImmutable(int fd) {
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || (flags & FS_IMMUTABLE_FL)) return;
    flags |= FS_IMMUTABLE_FL;
    ioctl(fd, FS_IOC_SETFLAGS, &flags);  // errors are ignored: locking is best effort
}

bool clearLocking(int fd) {
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || !(flags & kLockingFlags)) return false;
    flags &= ~kLockingFlags;
    ioctl(fd, FS_IOC_SETFLAGS, &flags);  // a failure leaves the item locked; the caller's retry reports it
    return true;
}

void clearLockingBelow(int fd) {
    clearLocking(fd);
    int listFd = dup(fd);
    if (listFd < 0) return;
    DIR* dir = fdopendir(listFd);
    if (!dir) {
        close(listFd);
        return;
    }
    while (dirent* entry = readdir(dir)) {
        if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
        FVFd child = openForFlags(fd, entry->d_name);
        if (!child.valid()) continue;
        struct stat st {};
        if (fstat(child.get(), &st) == 0 && S_ISDIR(st.st_mode)) clearLockingBelow(child.get());
        else clearLocking(child.get());
    }
    closedir(dir);
}

bool hasNoDump(int dirFd, const char* name) {
    struct statx stx {};
    if (statx(dirFd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, 0, &stx) == 0 &&
        (stx.stx_attributes_mask & STATX_ATTR_NODUMP))
        return (stx.stx_attributes & STATX_ATTR_NODUMP) != 0;
    FVFd fd = openForFlags(dirFd, name);
    int flags = 0;
    return fd.valid() && ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_NODUMP_FL);
}

bool hasCopiedFlags(int fd) {
    int flags = 0;
    return ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || (flags & kCopiedFlags) != 0;
}

CloneResult clone(int sourceFd, int destinationFd, bool destinationHasCopiedFlags) {
    CloneResult result {true, true};
    int sourceFlags = 0;
    if (ioctl(sourceFd, FS_IOC_GETFLAGS, &sourceFlags) != 0) {
        result.readOK = false;
        sourceFlags = 0;
    }
    if (!destinationHasCopiedFlags && (sourceFlags & kCopiedFlags) == 0) return result;
    int destinationFlags = 0;
    if (ioctl(destinationFd, FS_IOC_GETFLAGS, &destinationFlags) != 0) {
        result.writeOK = (sourceFlags & kCopiedFlags) == 0;
        return result;
    }
    int wanted = (destinationFlags & ~kCopiedFlags) | (sourceFlags & kCopiedFlags);
    if (wanted != destinationFlags && ioctl(destinationFd, FS_IOC_SETFLAGS, &wanted) != 0) result.writeOK = false;
    return result;
}

void lockFile(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    FVFd fd = parent.valid() ? openForFlags(parent.get(), name) : FVFd();
    if (fd.valid()) setImmutable(fd.get());
}

bool unlockFile(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    return parent.valid() && unlockFileAt(parent.get(), name);
}

bool unlockFileAt(int dirFd, const std::string& name) {
    if (name.empty()) return clearLocking(dirFd);
    FVFd fd = openForFlags(dirFd, name);
    return fd.valid() && clearLocking(fd.get());
}

void unlockRecursively(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    if (parent.valid()) unlockRecursivelyAt(parent.get(), name);
}

void unlockRecursivelyAt(int dirFd, const std::string& name) {
    FVFd fd = openForFlags(dirFd, name);
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) clearLockingBelow(fd.get());
    else clearLocking(fd.get());
}

}  // namespace ferrovane::FVInodeFlags
