// Folders: ensuring a file's folder, creating or replacing the folder of a directory pair, and
// applying every folder's metadata once all files are copied.

#include "engine/FVAdditions.h"
#include "engine/FVFileCopyWorkerImpl.h"
#include "fs/FVItemMetadata.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

namespace ferrovane {

namespace {
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
}  // namespace

void FVDirectoryStore::append(std::string_view source, std::string_view destination) {
    if (ends_.empty()) {
        ends_.reserve(2 * 10000);
        arena_.reserve(10000 * 128);
    }
    arena_.append(source);
    ends_.push_back(arena_.size());
    arena_.append(destination);
    ends_.push_back(arena_.size());
}

void FVDirectoryStore::clear() {
    std::string().swap(arena_);
    std::vector<size_t>().swap(ends_);
}

void FVFileCopyWorker::Impl::settleFolder(const std::string& path) {
    {
        std::lock_guard lock(filesMutex);
        auto found = std::find(foldersInFlight.begin(), foldersInFlight.end(), path);
        if (found != foldersInFlight.end()) foldersInFlight.erase(found);
    }
    folderSettled.notify_all();
}

// Waits while a folder at or above path is being created or replaced by another thread; true
// when there was one, so that a failed open is worth another try.
bool FVFileCopyWorker::Impl::waitForFoldersAbove(std::string_view path) {
    auto isAbove = [path](const std::string& folder) { return FVText::isPathWithin(path, folder); };
    std::unique_lock lock(filesMutex);
    bool waited = false;
    while (std::any_of(foldersInFlight.begin(), foldersInFlight.end(), isAbove)) {
        waited = true;
        folderSettled.wait(lock);
    }
    return waited;
}

FVFd FVFileCopyWorker::Impl::openFolderOnceSettled(const std::string& path, int* error, bool* created) {
    std::optional<std::string> relative = destination->relativePath(path);
    if (!relative) {
        *error = EXDEV;
        return {};
    }
    FVFd folder = destination->openFolder(*relative, true, error, created);
    if (!folder.valid() && (*error == ENOTDIR || *error == ELOOP) && waitForFoldersAbove(path))
        folder = destination->openFolder(*relative, true, error, created);
    return folder;
}

bool FVFileCopyWorker::Impl::ensureFolder(FVCopyThreadState& state, const std::string& path) {
    if (path == state.lastDirectory && state.lastDirectoryFd.valid()) return true;
    state.lastDirectory = path;
    bool created = false;
    state.lastDirectoryFd = openFolderOnceSettled(path, &state.lastDirectoryError, &created);
    if (created && verboseLogging) sendMessage(fmt::format("Creating directory {}", path), kLevelInfo);
    return state.lastDirectoryFd.valid();
}

void FVFileCopyWorker::Impl::ensureDirectoryItem(FVCopyThreadState& state, FVFileSystemItem& destinationItem) {
    const std::string& path = destinationItem.path();
    state.lastDirectory = path;
    state.lastDirectoryFd.reset();
    std::optional<std::string> relative = destination->relativePath(path);
    if (!relative) {
        state.lastDirectoryError = EXDEV;
        return;
    }
    if (relative->empty()) {
        state.lastDirectoryFd = destination->openFolder("", false, &state.lastDirectoryError);
        return;
    }
    std::string name = FVText::lastPathComponent(*relative);
    FVFd parent = openFolderOnceSettled(FVText::deletingLastPathComponent(path), &state.lastDirectoryError);
    if (!parent.valid()) return;

    struct stat st {};
    bool exists = fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISDIR(st.st_mode)) {
        if (!mayOverwrite(destinationItem)) {
            state.lastDirectoryError = EEXIST;
            return;
        }
        if (FVConfinedDirectory::removeRecursivelyAt(parent.get(), name) != 0) {
            FVFileManager::unlockFileAt(parent.get(), name);
            FVFileManager::unlockFileAt(parent.get(), "");
            FVConfinedDirectory::removeRecursivelyAt(parent.get(), name);
        }
        exists = false;
    } else if (!exists && verboseLogging) {
        sendMessage(fmt::format("Creating directory {}", path), kLevelInfo);
    }
    if (!exists && mkdirat(parent.get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
        FVFileManager::unlockFileAt(parent.get(), "");
        mkdirat(parent.get(), name.c_str(), 0777);  // a failure shows in the open below
    }
    state.lastDirectoryFd.reset(openat(parent.get(), name.c_str(), kFolderFlags));
    state.lastDirectoryError = state.lastDirectoryFd.valid() ? 0 : errno;
}

int FVFileCopyWorker::Impl::openSource(const std::string& path, int flags) const {
    std::optional<std::string> relative = sourceTree ? sourceTree->relativePath(path) : std::nullopt;
    // The root itself, a source that is a single file, or a worker without a source root.
    if (!relative || relative->empty() || sourceTree->openError() != 0) return FVLongPath::open(path, flags);
    const size_t slash = relative->rfind('/');
    int error = 0;
    FVFd folder = sourceTree->openFolder(slash == std::string::npos ? "" : relative->substr(0, slash), false, &error);
    if (!folder.valid()) {
        errno = error;
        return -1;
    }
    const std::string name = slash == std::string::npos ? *relative : relative->substr(slash + 1);
    return openat(folder.get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
}

void FVFileCopyWorker::Impl::addDirectoryToStore(const std::string& source, const std::string& destinationPath) {
    std::lock_guard lock(storeMutex);
    directoryStore.append(source, destinationPath);
}

void FVFileCopyWorker::Impl::cloneAllDirectoryAttributes() {
    if (verboseLogging) sendMessage("Cloning all directory attributes...", kLevelInfo);
    std::lock_guard lock(storeMutex);
    for (size_t i = 0; i < directoryStore.size(); ++i) {
        std::string sourcePath(directoryStore.source(i));
        FVFd source(openSource(sourcePath, kFolderFlags | O_NONBLOCK));
        struct stat st {};
        if (!source.valid() && errno == ENOENT) {
            if (verboseLogging)
                sendMessage(fmt::format("Directory metadata cloning failed because source vanished: {}", sourcePath),
                            kLevelInfo);
            continue;
        }
        int error = 0;
        std::optional<std::string> relative = destination->relativePath(directoryStore.destination(i));
        FVFd target = relative ? destination->openFolder(*relative, false, &error) : FVFd();
        bool ok = source.valid() && fstat(source.get(), &st) == 0 && target.valid() &&
                  FVItemMetadata::cloneStatusAndAttributes({source.get(), false}, st, {target.get(), false},
                                                           !disableACLClone, &error) &&
                  FVItemMetadata::cloneTimes(st, {target.get(), false}, &error);
        if (!ok) {
            sendMessage(fmt::format("WARNING: Directory metadata could not be preserved: {}", sourcePath), kLevelWarning);
        } else if (verboseLogging) {
            sendMessage(fmt::format("Directory metadata cloning successful: {}", sourcePath), kLevelInfo);
        }
        if (!source.valid() || !target.valid()) continue;
        FVItemMetadata::FlagsResult flags = FVItemMetadata::cloneFlags(source.get(), target.get());
        if (!verboseLogging) continue;
        sendMessage(flags.readOK ? fmt::format("Directory supplemental metadata reading successful: {}", sourcePath)
                                 : fmt::format("WARNING: Flags directory metadata could not be read: {}", sourcePath),
                    flags.readOK ? kLevelInfo : kLevelWarning);
        sendMessage(flags.writeOK ? fmt::format("Directory supplemental metadata writing successful: {}", sourcePath)
                                  : fmt::format("WARNING: Flags directory metadata could not be written: {}", sourcePath),
                    flags.writeOK ? kLevelInfo : kLevelWarning);
    }
    directoryStore.clear();
}

}  // namespace ferrovane
