#include "fs/FVConfinedDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Cleared once the kernel says it has no openat2; the per-component walk is used from then on.
std::atomic<bool> haveOpenat2{true};

bool validComponent(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX;
}

int openBeneath(int dirFd, const std::string& relative) {
    open_how how {};
    how.flags = kFolderFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        long fd = syscall(SYS_openat2, dirFd, relative.c_str(), &how, sizeof how);
        if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
    }
}

// Splits a relative path into (folder part, last component).
bool splitLast(std::string_view relative, std::string_view& folder, std::string& name) {
    auto slash = relative.find_last_of('/');
    folder = slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
    name = std::string(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
    return validComponent(name);
}

int removeContents(int dirFd) {
    int listFd = dup(dirFd);
    if (listFd < 0) return errno;
    DIR* dir = fdopendir(listFd);
    if (!dir) {
        int error = errno;
        close(listFd);
        return error;
    }
    int firstError = 0;
    for (;;) {
        errno = 0;
        dirent* entry = readdir(dir);
        if (!entry) {
            if (errno && !firstError) firstError = errno;
            break;
        }
        if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
        int error = FVConfinedDirectory::removeRecursivelyAt(dirFd, entry->d_name);
        if (error && !firstError) firstError = error;
    }
    closedir(dir);
    return firstError;
}

}  // namespace

FVConfinedDirectory::FVConfinedDirectory(std::string rootPath) : rootPath_(std::move(rootPath)) {
    while (rootPath_.size() > 1 && rootPath_.back() == '/') rootPath_.pop_back();
    root_.reset(FVLongPath::open(rootPath_, O_RDONLY | O_DIRECTORY));
    if (!root_.valid()) openError_ = errno;
}

std::optional<std::string> FVConfinedDirectory::relativePath(std::string_view absolutePath) const {
    while (absolutePath.size() > 1 && absolutePath.back() == '/') absolutePath.remove_suffix(1);
    if (absolutePath == rootPath_) return std::string();
    std::string_view prefix = rootPath_ == "/" ? std::string_view() : std::string_view(rootPath_);
    if (!absolutePath.starts_with(prefix) || absolutePath.size() <= prefix.size() + 1 ||
        absolutePath[prefix.size()] != '/') {
        return std::nullopt;
    }
    std::string relative(absolutePath.substr(prefix.size() + 1));
    size_t pos = 0;
    while (pos <= relative.size()) {
        size_t end = relative.find('/', pos);
        if (end == std::string::npos) end = relative.size();
        if (!validComponent(std::string_view(relative).substr(pos, end - pos))) return std::nullopt;
        pos = end + 1;
    }
    return relative;
}

FVFd FVConfinedDirectory::openFolder(std::string_view relative, bool createMissing, int* error,
                                        bool* created, size_t* createdFrom) const {
    if (created) *created = false;
    if (createdFrom) *createdFrom = std::string_view::npos;
    auto fail = [&](int e) {
        if (error) *error = e;
        return FVFd();
    };
    if (!root_.valid()) return fail(openError_);
    if (relative.empty()) {
        int fd = fcntl(root_.get(), F_DUPFD_CLOEXEC, 0);
        return fd < 0 ? fail(errno) : FVFd(fd);
    }
    if (relative.size() < PATH_MAX && haveOpenat2.load(std::memory_order_relaxed)) {
        int fd = openBeneath(root_.get(), std::string(relative));
        if (fd >= 0) return FVFd(fd);
        if (errno == ENOSYS) haveOpenat2.store(false, std::memory_order_relaxed);
        else if (errno != ENOENT || !createMissing) return fail(errno);
    }
    FVFd current;
    size_t pos = 0;
    // What is missing is usually the last folder or two (an archive folder beside one made a
    // moment ago): the walk below starts from the deepest folder that exists.
    if (createMissing && relative.size() < PATH_MAX && haveOpenat2.load(std::memory_order_relaxed)) {
        for (size_t cut = relative.rfind('/'); cut != std::string_view::npos && cut > 0;
             cut = relative.rfind('/', cut - 1)) {
            int fd = openBeneath(root_.get(), std::string(relative.substr(0, cut)));
            if (fd >= 0) {
                current.reset(fd);
                pos = cut + 1;
                break;
            }
            if (errno != ENOENT) return fail(errno);
        }
    }
    // One component at a time: O_NOFOLLOW on a single name never leaves the folder above it.
    if (!current.valid()) current.reset(fcntl(root_.get(), F_DUPFD_CLOEXEC, 0));
    if (!current.valid()) return fail(errno);
    while (pos < relative.size()) {
        size_t end = relative.find('/', pos);
        if (end == std::string_view::npos) end = relative.size();
        std::string name(relative.substr(pos, end - pos));
        const size_t start = pos;
        pos = end + 1;
        if (!validComponent(name)) return fail(EINVAL);
        int fd = openat(current.get(), name.c_str(), kFolderFlags);
        if (fd < 0 && errno == ENOENT && createMissing) {
            if (mkdirat(current.get(), name.c_str(), 0777) == 0) {
                if (created) *created = true;
                if (createdFrom && *createdFrom == std::string_view::npos) *createdFrom = start;
            } else if (errno != EEXIST) {
                return fail(errno);
            }
            fd = openat(current.get(), name.c_str(), kFolderFlags);
        }
        if (fd < 0) return fail(errno);
        current.reset(fd);
    }
    return current;
}

int FVConfinedDirectory::moveItem(std::string_view fromRelative, std::string_view toRelative,
                                     bool createMissing, bool noReplace) const {
    std::string_view fromFolder, toFolder;
    std::string fromName, toName;
    if (!splitLast(fromRelative, fromFolder, fromName) || !splitLast(toRelative, toFolder, toName)) return EINVAL;
    int error = 0;
    FVFd from = openFolder(fromFolder, false, &error);
    if (!from.valid()) return error;
    size_t createdFrom = std::string_view::npos;
    FVFd to = openFolder(toFolder, createMissing, &error, nullptr, &createdFrom);
    if (!to.valid()) return error;
    error = noReplace ? renameWithoutReplacing(from.get(), fromName.c_str(), to.get(), toName.c_str())
                      : renameat(from.get(), fromName.c_str(), to.get(), toName.c_str()) == 0 ? 0 : errno;
    if (error == 0 || createdFrom == std::string_view::npos) return error;
    // No empty folders left behind by a move that did not happen: the deepest first, up to the
    // first one this move made.
    to.reset();
    for (std::string_view folder = toFolder; folder.size() > createdFrom;) {
        std::string_view parent;
        std::string name;
        if (!splitLast(folder, parent, name)) break;
        FVFd parentFd = openFolder(parent, false, nullptr);
        if (!parentFd.valid() || unlinkat(parentFd.get(), name.c_str(), AT_REMOVEDIR) != 0) break;
        folder = parent;
    }
    return error;
}

int FVConfinedDirectory::renameWithoutReplacing(int fromDirFd, const char* fromName, int toDirFd, const char* toName) {
    if (renameat2(fromDirFd, fromName, toDirFd, toName, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return errno;
    struct stat st {};
    if (fstatat(toDirFd, toName, &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
    if (errno != ENOENT) return errno;
    // Where EINVAL had another cause (a folder moved into itself), the plain rename says so too.
    return renameat(fromDirFd, fromName, toDirFd, toName) == 0 ? 0 : errno;
}

int FVConfinedDirectory::statItem(std::string_view relative, struct stat* st) const {
    if (relative.empty()) {
        if (!root_.valid()) return openError_;
        return fstat(root_.get(), st) == 0 ? 0 : errno;
    }
    std::string_view folder;
    std::string name;
    if (!splitLast(relative, folder, name)) return EINVAL;
    int error = 0;
    FVFd parent = openFolder(folder, false, &error);
    if (!parent.valid()) return error;
    return fstatat(parent.get(), name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int FVConfinedDirectory::removeItem(std::string_view relative) const {
    std::string_view folder;
    std::string name;
    if (!splitLast(relative, folder, name)) return EINVAL;
    int error = 0;
    FVFd parent = openFolder(folder, false, &error);
    return parent.valid() ? removeRecursivelyAt(parent.get(), name) : error;
}

int FVConfinedDirectory::removeRecursivelyAt(int dirFd, const std::string& name) {
    if (unlinkat(dirFd, name.c_str(), 0) == 0) return 0;
    if (errno != EISDIR && errno != EPERM) return errno;
    // unlink of a folder answers EISDIR (or EPERM on some file systems): empty it first.
    int saved = errno;
    FVFd child(openat(dirFd, name.c_str(), kFolderFlags));
    if (!child.valid()) return errno == ENOTDIR || errno == ELOOP ? saved : errno;
    int error = removeContents(child.get());
    child.reset();
    if (unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0) return 0;
    return error ? error : errno;
}

}  // namespace ferrovane
