#include "engine/FVAdditions.h"

#include "engine/FVFileDescriptor.h"
#include "platform/FVSystemLog.h"

#include <dirent.h>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <vector>

namespace ferrovane {

namespace {

std::string formatLocal(const char* format, std::time_t t) {
    std::tm local {};
    localtime_r(&t, &local);
    char buffer[128];
    size_t n = std::strftime(buffer, sizeof buffer, format, &local);
    return std::string(buffer, n);
}

std::string formatLocalNow(const char* format) { return formatLocal(format, std::time(nullptr)); }

}  // namespace

namespace FVDate {

std::string logTimeStamp() { return formatLocalNow("%Y-%m-%d %H:%M:%S"); }
std::string archiveStamp(std::time_t at) { return formatLocal("%Y-%m-%d %H.%M.%S %z", at); }

double now() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace FVDate

namespace FVNumber {

std::string formattedDiskSizeString(double v) {
    if (v < 1000) return fmt::format("{:.0f} bytes", v);
    if (v / 1000 < 1000) return fmt::format("{:.1f} KB", v * 0.001);
    if (v / 1000000 < 1000) return fmt::format("{:.1f} MB", v * 0.000001);
    return fmt::format("{:.1f} GB", v * 0.000000001);
}

}  // namespace FVNumber

namespace FVFileManager {

namespace {

constexpr const char* kClassName = "FVFileManager";

// Inode flags need a real descriptor; opening a device could have side effects, so only regular
// files and folders are opened.
FVFd openForFlags(int dirFd, const std::string& name) {
    if (name.empty()) return {};
    struct stat st {};
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return {};
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return {};
    return FVFd(openat(dirFd, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
}

// Append-only refuses a rename and a removal just as immutable does.
constexpr int kLockingFlags = FS_IMMUTABLE_FL | FS_APPEND_FL;

bool clearLockingFlags(int fd) {
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || !(flags & kLockingFlags)) return false;
    flags &= ~kLockingFlags;
    ioctl(fd, FS_IOC_SETFLAGS, &flags);  // a failure leaves the item locked; the caller's retry reports it
    return true;
}

void unlockTree(int dirFd) {
    clearLockingFlags(dirFd);
    int listFd = dup(dirFd);
    if (listFd < 0) return;
    DIR* dir = fdopendir(listFd);
    if (!dir) {
        close(listFd);
        return;
    }
    while (dirent* entry = readdir(dir)) {
        if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
        FVFd child = openForFlags(dirFd, entry->d_name);
        if (!child.valid()) continue;
        struct stat st {};
        if (fstat(child.get(), &st) == 0 && S_ISDIR(st.st_mode)) unlockTree(child.get());
        else clearLockingFlags(child.get());
    }
    closedir(dir);
}

std::string hex(const char* bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out = "<";
    for (size_t i = 0; i < size; ++i) {
        if (i && i % 4 == 0) out += ' ';
        auto c = static_cast<unsigned char>(bytes[i]);
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out + ">";
}

}  // namespace

std::string filesystemTypeAtPath(const std::string& path) {
    char* mountPoint = mnt_get_mountpoint(path.c_str());
    if (!mountPoint) return "";
    std::string type;
    if (libmnt_table* table = mnt_new_table_from_file("/proc/self/mountinfo")) {
        if (libmnt_fs* fs = mnt_table_find_target(table, mountPoint, MNT_ITER_BACKWARD)) {
            if (const char* name = mnt_fs_get_fstype(fs)) type = name;
        }
        mnt_unref_table(table);
    }
    free(mountPoint);
    return type;
}

namespace {

// Whether the folder holds an entry whose name the filter accepts; nothing when it cannot be
// listed. "." and ".." are never offered.
std::optional<bool> folderHoldsEntry(const std::string& path, bool (*accepted)(std::string_view name)) {
    int fd = FVLongPath::open(path, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return std::nullopt;
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return std::nullopt;
    }
    bool found = false;
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (name != "." && name != ".." && accepted(name)) {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

}  // namespace

bool pathContainsUserFilePaths(const std::string& path) {
    return folderHoldsEntry(path, [](std::string_view name) {
               return !name.starts_with(".") && name != "Desktop DB" && name != "Desktop DF";
           }).value_or(false);
}

std::optional<bool> folderHasEntries(const std::string& path) {
    return folderHoldsEntry(path, [](std::string_view) { return true; });
}

void lockFile(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    FVFd fd = parent.valid() ? openForFlags(parent.get(), name) : FVFd();
    int flags = 0;
    if (!fd.valid() || ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0 || (flags & FS_IMMUTABLE_FL)) return;
    flags |= FS_IMMUTABLE_FL;
    ioctl(fd.get(), FS_IOC_SETFLAGS, &flags);  // errors are ignored: locking is best effort
}

bool unlockFile(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    return parent.valid() && unlockFileAt(parent.get(), name);
}

bool unlockFileAt(int dirFd, const std::string& name) {
    if (name.empty()) return clearLockingFlags(dirFd);
    FVFd fd = openForFlags(dirFd, name);
    return fd.valid() && clearLockingFlags(fd.get());
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
    if (S_ISDIR(st.st_mode)) unlockTree(fd.get());
    else clearLockingFlags(fd.get());
}

bool xattrNameIsSkipped(std::string_view name) {
    return name == "com.apple.quarantine" || name == "com.apple.FinderInfo";
}

bool xattrIsCarried(std::string_view name, bool includeACL) {
    if (xattrNameIsSkipped(name)) return false;
    return includeACL || (name != "system.posix_acl_access" && name != "system.posix_acl_default");
}

FVExistence existenceAtPath(const std::string& path, int* error) {
    struct stat st {};
    int result = FVLongPath::lstat(path, &st) == 0 ? 0 : errno;
    if (error) *error = result;
    if (result == 0) return FVExistence::Exists;
    return result == ENOENT || result == ENOTDIR ? FVExistence::Missing : FVExistence::Unknown;
}

bool pathExists(const std::string& path) { return existenceAtPath(path) == FVExistence::Exists; }

std::string xattrNameAndDataStringForFileAtPath(const std::string& path, bool includeACL) {
    ssize_t listSize = llistxattr(path.c_str(), nullptr, 0);
    if (listSize <= 0) return "";
    std::vector<char> names(static_cast<size_t>(listSize) + 1, 0);
    listSize = llistxattr(path.c_str(), names.data(), names.size() - 1);
    if (listSize <= 0) return "";
    std::string signature;
    std::vector<char> value;
    for (size_t pos = 0; pos < static_cast<size_t>(listSize);) {
        const char* name = names.data() + pos;
        size_t length = strlen(name);
        pos += length + 1;
        if (!xattrIsCarried(name, includeACL)) continue;
        signature += name;
        ssize_t size = lgetxattr(path.c_str(), name, nullptr, 0);
        if (size >= 0) {
            value.resize(static_cast<size_t>(size));
            size = lgetxattr(path.c_str(), name, value.data(), value.size());
        }
        if (size < 0) {
            FVSystemLog::error(kClassName, fmt::format("Failed to read xattr with name, skipping: {}", name));
            continue;
        }
        signature += ":" + hex(value.data(), static_cast<size_t>(size)) + "\n";
    }
    return signature;
}

bool xattrIdentialforFileAtPath(const std::string& path, const std::string& otherPath, bool includeACL) {
    if (path.empty() || otherPath.empty()) {
        FVSystemLog::error(kClassName, fmt::format("Xattr comparison encountered empty path: {} -> {}", path, otherPath));
        return false;
    }
    return xattrNameAndDataStringForFileAtPath(path, includeACL) ==
           xattrNameAndDataStringForFileAtPath(otherPath, includeACL);
}

}  // namespace FVFileManager

}  // namespace ferrovane
