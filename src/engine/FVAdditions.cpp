#include "engine/FVAdditions.h"

#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVInodeFlags.h"
#include "platform/FVSystemLog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

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
    if (v < 1000) return v == 1 ? "1 byte" : fmt::format("{:.0f} bytes", v);
    if (v / 1000 < 1000) return fmt::format("{:.1f} KB", v * 0.001);
    if (v / 1000000 < 1000) return fmt::format("{:.1f} MB", v * 0.000001);
    return fmt::format("{:.1f} GB", v * 0.000000001);
}

std::string counted(uint64_t count, std::string_view one, std::string_view many) {
    if (count == 1) return fmt::format("1 {}", one);
    return many.empty() ? fmt::format("{} {}s", count, one) : fmt::format("{} {}", count, many);
}

}  // namespace FVNumber

namespace FVFileManager {

namespace {

constexpr const char* kClassName = "FVFileManager";

}  // namespace

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
    FVFd fd = parent.valid() ? FVInodeFlags::openForFlags(parent.get(), name) : FVFd();
    if (fd.valid()) FVInodeFlags::setImmutable(fd.get());
}

bool unlockFile(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    return parent.valid() && unlockFileAt(parent.get(), name);
}

bool unlockFileAt(int dirFd, const std::string& name) {
    if (name.empty()) return FVInodeFlags::clearLocking(dirFd);
    FVFd fd = FVInodeFlags::openForFlags(dirFd, name);
    return fd.valid() && FVInodeFlags::clearLocking(fd.get());
}

void unlockRecursively(const std::string& path) {
    std::string name;
    FVFd parent = FVLongPath::openParent(path, name);
    if (parent.valid()) unlockRecursivelyAt(parent.get(), name);
}

void unlockRecursivelyAt(int dirFd, const std::string& name) {
    FVFd fd = FVInodeFlags::openForFlags(dirFd, name);
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) FVInodeFlags::clearLockingBelow(fd.get());
    else FVInodeFlags::clearLocking(fd.get());
}

FVExistence existenceAtPath(const std::string& path, int* error, mode_t* type) {
    struct stat st {};
    int result = FVLongPath::lstat(path, &st) == 0 ? 0 : errno;
    if (error) *error = result;
    if (type) *type = st.st_mode & S_IFMT;
    if (result == 0) return FVExistence::Exists;
    return result == ENOENT || result == ENOTDIR ? FVExistence::Missing : FVExistence::Unknown;
}

bool pathExists(const std::string& path) { return existenceAtPath(path) == FVExistence::Exists; }

std::string xattrNameAndDataStringForFileAtPath(const std::string& path, bool includeACL) {
    return FVExtendedAttributes(path).signature(includeACL, [](const char* name) {
        FVSystemLog::error(kClassName, fmt::format("Failed to read xattr with name, skipping: {}", name));
    });
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
