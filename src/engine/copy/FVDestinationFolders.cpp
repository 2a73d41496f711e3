#include "engine/copy/FVDestinationFolders.h"

#include "engine/copy/FVCopyContext.h"
#include "engine/copy/FVCopyThreadState.h"
#include "fs/FVFileStatus.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVItemCreation.h"
#include "fs/FVOpenFiles.h"
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

void FVDestinationFolders::markInFlight(const std::string& path) {
    std::lock_guard lock(mutex_);
    inFlight_.push_back(path);
}

void FVDestinationFolders::settle(const std::string& path) {
    {
        std::lock_guard lock(mutex_);
        auto found = std::find(inFlight_.begin(), inFlight_.end(), path);
        if (found != inFlight_.end()) inFlight_.erase(found);
    }
    settled_.notify_all();
}

// Waits while a folder at or above path is being created or replaced by another thread; true
// when there was one, so that a failed open is worth another try.
bool FVDestinationFolders::waitForFoldersAbove(std::string_view path) {
    auto isAbove = [path](const std::string& folder) { return FVText::isPathWithin(path, folder); };
    std::unique_lock lock(mutex_);
    bool waited = false;
    while (std::any_of(inFlight_.begin(), inFlight_.end(), isAbove)) {
        waited = true;
        settled_.wait(lock);
    }
    return waited;
}

FVFd FVDestinationFolders::openFolderOnceSettled(const std::string& path, int* error, bool* created) {
    std::optional<std::string> relative = context_.destination->relativePath(path);
    if (!relative) {
        *error = EXDEV;
        return {};
    }
    FVFd folder = context_.destination->openFolder(*relative, true, error, created);
    if (!folder.valid() && (*error == ENOTDIR || *error == ELOOP) && waitForFoldersAbove(path))
        folder = context_.destination->openFolder(*relative, true, error, created);
    return folder;
}

bool FVDestinationFolders::ensureFolder(FVCopyThreadState& state, const std::string& path) {
    if (path == state.lastDirectory && state.lastDirectoryFd.valid()) return true;
    state.lastDirectory = path;
    state.newFiles.forget();
    bool created = false;
    state.lastDirectoryFd = openFolderOnceSettled(path, &state.lastDirectoryError, &created);
    if (created && context_.verboseLogging)
        context_.sendMessage(fmt::format("Creating directory {}", path));
    return state.lastDirectoryFd.valid();
}

void FVDestinationFolders::ensureDirectoryItem(FVCopyThreadState& state, FVFileSystemItem& destinationItem) {
    const std::string& path = destinationItem.path();
    state.lastDirectory = path;
    state.lastDirectoryFd.reset();
    state.newFiles.forget();
    std::optional<std::string> relative = context_.destination->relativePath(path);
    if (!relative) {
        state.lastDirectoryError = EXDEV;
        return;
    }
    if (relative->empty()) {
        state.lastDirectoryFd = context_.destination->openFolder("", false, &state.lastDirectoryError);
        return;
    }
    std::string name = FVText::lastPathComponent(*relative);
    FVFd parent = openFolderOnceSettled(FVText::deletingLastPathComponent(path), &state.lastDirectoryError);
    if (!parent.valid()) return;

    struct stat st {};
    bool exists = FVFileStatus::fstatat(parent.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISDIR(st.st_mode)) {
        if (!context_.mayOverwrite(destinationItem)) {
            state.lastDirectoryError = EEXIST;
            return;
        }
        if (FVConfinedDirectory::removeRecursivelyAt(parent.get(), name) != 0) {
            FVInodeFlags::unlockFileAt(parent.get(), name);
            FVInodeFlags::unlockFileAt(parent.get(), "");
            FVConfinedDirectory::removeRecursivelyAt(parent.get(), name);
        }
        exists = false;
    } else if (!exists && context_.verboseLogging) {
        context_.sendMessage(fmt::format("Creating directory {}", path));
    }
    int made = 0;
    if (!exists && FVItemCreation::mkdirat(parent.get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
        FVInodeFlags::unlockFileAt(parent.get(), "");
        if (FVItemCreation::mkdirat(parent.get(), name.c_str(), 0777) != 0 && errno != EEXIST) made = errno;
    }
    state.lastDirectoryFd.reset(FVOpenFiles::openat(parent.get(), name.c_str(), kFolderFlags));
    // A folder that could not be made is missing: its reason is the one that counts.
    state.lastDirectoryError = state.lastDirectoryFd.valid() ? 0 : errno == ENOENT && made ? made : errno;
}

}  // namespace ferrovane
