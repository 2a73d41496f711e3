#include "engine/analysis/FVMirrorFolders.h"

#include "engine/analysis/FVAttributeSignature.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

// The names in a folder other than "." and "..", or nothing when it cannot be listed.
std::optional<size_t> countNames(int fd) {
    alignas(8) char buffer[32768];
    size_t count = 0;
    for (;;) {
        ssize_t size = FVDirectoryEntries::getdents64(fd, buffer, sizeof buffer);
        if (size == 0) return count;
        if (size < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        for (ssize_t offset = 0; offset < size;) {
            const auto* record = reinterpret_cast<const dirent64*>(buffer + offset);
            offset += record->d_reclen;
            if (std::strcmp(record->d_name, ".") != 0 && std::strcmp(record->d_name, "..") != 0) ++count;
        }
    }
}

}  // namespace

FVFileSystemItemPtr FVMirrorFolders::item(size_t level, const char* name, const std::string& path) {
    if (level == 0 || level > folders_.size() || !folders_[level - 1].fd.valid())
        return std::make_shared<FVFileSystemItem>(path);
    struct stat st {};
    if (FVFileStatus::fstatat(folders_[level - 1].fd.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0)
        return std::make_shared<FVFileSystemItem>(path, st);
    if (errno == ENOENT) return FVFileSystemItem::missingItem(path);
    return std::make_shared<FVFileSystemItem>(path);
}

std::string FVMirrorFolders::signature(size_t level, const char* name, const std::string& path, bool includeACL) {
    const bool inFolder = level > 0 && level <= folders_.size() &&
                          workingFolder_.moveTo(folders_[level - 1].fd.get(), folders_[level - 1].relativePath);
    return FVAttributeSignature::xattrNameAndDataStringForFileAtPath(inFolder ? std::string(name) : path, includeACL);
}

void FVMirrorFolders::leaveBelow(size_t level) {
    while (folders_.size() > level) {
        settle(folders_.back());
        folders_.pop_back();
    }
}

void FVMirrorFolders::enter(size_t level, const char* name, std::string relativePath, FVFileSystemItem& mirror) {
    leaveBelow(level);
    Folder folder;
    folder.relativePath = std::move(relativePath);
    folder.exists = mirror.fileExists() && mirror.fileType() == FVFileType::Directory;
    if (folder.exists && level < kLevelLimit) {
        const int flags = (countNames_ ? O_RDONLY : O_PATH) | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        if (level == 0)
            folder.fd.reset(FVLongPath::open(mirror.path(), flags));
        else if (level <= folders_.size() && folders_[level - 1].fd.valid())
            folder.fd.reset(FVOpenFiles::openat(folders_[level - 1].fd.get(), name, flags));
        if (countNames_ && folder.fd.valid()) {
            std::optional<size_t> names = countNames(folder.fd.get());
            folder.counted = names.has_value();
            folder.names = names.value_or(0);
        }
    }
    folders_.push_back(std::move(folder));
}

void FVMirrorFolders::countMatch(size_t level) {
    if (level > 0 && level <= folders_.size()) ++folders_[level - 1].matched;
}

void FVMirrorFolders::settle(Folder& folder) {
    if (!countNames_ || !folder.exists) return;
    if (!folder.counted || folder.names > folder.matched) withExtraNames_.push_back(std::move(folder.relativePath));
}

std::vector<std::string> FVMirrorFolders::finish() {
    leaveBelow(0);
    return std::move(withExtraNames_);
}

}  // namespace ferrovane
