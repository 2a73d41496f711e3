// After all sources are mirrored: destination items whose source is gone (or now excluded) are
// archived into __removed/<stamp>/ or deleted; and archives past their age are purged.

#include "engine/FVAdditions.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/FVExclusionRules.h"
#include "engine/FVFileCopyWorker.h"
#include "engine/FVSyncingBackup.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

namespace {

bool pathExists(const std::string& path) { return FVFileSystemItem(path).fileExists(); }

bool isEmptyDirectory(const std::string& path) {
    return FVFileSystemItem(path).fileType() == FVFileType::Directory && FVFileManager::folderHasEntries(path) == false;
}

// Only the exact names the copy gives its temporary files are leftovers: the prefix and 16
// lowercase hexadecimal digits.
bool isTemporaryName(std::string_view name) {
    const std::string_view prefix = kTemporaryFilePrefix;
    if (name.size() != prefix.size() + 16 || !name.starts_with(prefix)) return false;
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string appendComponent(const std::string& base, const std::string& relative) {
    if (relative.empty()) return base;
    if (!base.empty() && base.back() == '/') return base + relative.substr(relative.front() == '/' ? 1 : 0);
    return base + relative;
}

}  // namespace

void FVSyncingBackup::removeDeletedFilesArchivingFiles(bool archive, int32_t cleanupFileCount) {
    if (!willPerformCleanup_) FVSystemLog::error("FVSyncingBackup", "***** CLEANUP CALLED WITHOUT CACHE ******");
    archive_ = archive;
    cleanupFileCount_ = cleanupFileCount;
    queue_.async([this] { cleanup(); });
}

void FVSyncingBackup::cleanup() {
    logLine(archive_ ? "Archiving deleted items..." : "Removing deleted items...");
    copyProgressStatus_ = 0;
    analyseProgressStatus_ = 0;
    lastReportedProgress_ = 0;

    int handled = 0;
    for (const FVSourceItemPtr& item : backupSet_) {
        if (item->enabled() != 1) continue;
        std::string sourceRoot = item->sourcePath();
        // A missing source (an unmounted volume) keeps its mirror untouched until it is back.
        if (!pathExists(sourceRoot)) continue;
        bool cancelled = false;
        auto confirmed = item->value(FVSourceKey::emptySourceConfirmed);
        cleanupSourceRoot(sourceRoot, confirmed && confirmed->boolValue(), handled, cancelled);
        if (cancelled) {
            postCancelOnce();
            return;
        }
    }
    logLine(archive_ ? fmt::format("Archiving deleted items finished: archived {} items.", handled)
                     : fmt::format("Removing deleted items finished: removed {} items.", handled));
    copyProgressStatus_ = 100;
    analyseProgressStatus_ = 100;
    reportProgress();
    observer_->cleanupTargetDidFinish(*this);
}

bool FVSyncingBackup::isBelowUnreadableSource(const std::string& sourcePath) const {
    return std::any_of(unreadableSourcePaths_.begin(), unreadableSourcePaths_.end(),
                       [&](const std::string& folder) { return FVText::isPathWithin(sourcePath, folder); });
}

bool FVSyncingBackup::isWithinDestination(const std::string& sourcePath) const {
    return std::any_of(destinationSourcePaths_.begin(), destinationSourcePaths_.end(),
                       [&](const std::string& folder) { return FVText::isPathWithin(sourcePath, folder); });
}

void FVSyncingBackup::cleanupSourceRoot(const std::string& sourceRoot, bool emptySourceConfirmed, int& handled,
                                        bool& cancelled) {
    if (isBelowUnreadableSource(sourceRoot)) return;
    const std::string mirror = itemTargetPath(sourceRoot);
    // An empty source folder whose mirror is full is most likely a volume that is not mounted:
    // deleting the mirror would destroy the only copy. Archiving keeps it, so only deletion waits
    // until the user confirms that the folder really was emptied.
    if (!archive_ && !emptySourceConfirmed && isEmptyDirectory(sourceRoot) &&
        FVFileSystemItem(mirror).fileType() == FVFileType::Directory && FVFileManager::folderHasEntries(mirror) != false) {
        std::string message = fmt::format(
            "ERROR: Not removing the contents of {}: its source {} is empty (a volume that is not mounted?). "
            "If the folder really was emptied, confirm it (\"ferrovane config {} confirm-empty {}\" or "
            "\"Confirm Emptied Folder…\" in the window's error list); the next run then removes the backup's contents.",
            mirror, sourceRoot, targetPath_, sourceRoot);
        logLine(message);
        addError(message.substr(7));
        return;
    }

    FVDirectoryWalker walker(mirror);
    walker.setTypesOnly(true);
    int visited = 0;
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        const mode_t type = entry->st.st_mode & S_IFMT;
        if (entry->error != 0 || (type != S_IFDIR && type != S_IFREG && type != S_IFLNK)) continue;
        if (isCancelled()) {
            cancelled = true;
            break;
        }
        const std::string& path = entry->path;
        std::string relative(entry->relativePath());
        std::string sourcePath = appendComponent(sourceRoot, relative);
        switch (relative.empty() ? CleanupDecision::Keep : decideMirrorEntry(sourceRoot, sourcePath, *entry)) {
        case CleanupDecision::Keep:
            if (type == S_IFDIR && isBelowUnreadableSource(sourcePath)) walker.skipChildren();
            break;
        case CleanupDecision::RemoveLeftover:
            keepingParentDates(path, [&] { removeWithinDestination(path); });
            break;
        case CleanupDecision::ArchiveOrRemove:
            keepingParentDates(path, [&] { removeDeletedItem(sourceRoot, relative, path); });
            ++handled;
            if (type == S_IFDIR) walker.skipChildren();
            break;
        }
        ++visited;
        float progress = static_cast<float>(visited) * 100.0f / static_cast<float>(cleanupFileCount_);
        copyProgressStatus_ = progress;
        analyseProgressStatus_ = progress;
        reportProgress();
    }
}

// Only a definite answer that the source is gone lets an item go: a source that cannot be looked
// up (no permission, an I/O error) keeps its mirror and everything below it.
FVSyncingBackup::CleanupDecision FVSyncingBackup::decideMirrorEntry(const std::string& sourceRoot,
                                                                   const std::string& sourcePath,
                                                                   const FVDirectoryWalker::Entry& entry) {
    const bool sourceSeen = sourcePathsCache_.contains(sourcePath);
    // Leftovers of an interrupted copy are no user files: they simply go, unarchived.
    if (!sourceSeen && isTemporaryName(entry.name()) && !S_ISDIR(entry.st.st_mode) &&
        FVFileManager::existenceAtPath(sourcePath) == FVExistence::Missing)
        return CleanupDecision::RemoveLeftover;
    if (sourceSeen || FVExclusionRules::fileShouldBeExcluded(sourcePath, protectedPaths_, nullptr) ||
        FVText::lastPathComponent(sourcePath).rfind("._", 0) == 0 || isBelowUnreadableSource(sourcePath))
        return CleanupDecision::Keep;
    // What a clone of the whole system leaves out is the destination volume's own business.
    if (sourceRoot == "/" &&
        FVExclusionRules::fileShouldBeExcluded(sourcePath, FVExclusionRules::rootClonePatterns(), nullptr))
        return CleanupDecision::Keep;
    if (isWithinDestination(sourcePath) || FVExclusionRules::fileShouldBeExcluded(sourcePath, excludedFiles_, nullptr))
        return CleanupDecision::ArchiveOrRemove;
    int error = 0;
    switch (FVFileManager::existenceAtPath(sourcePath, &error)) {
    case FVExistence::Exists:
        return CleanupDecision::Keep;
    case FVExistence::Missing:
        return CleanupDecision::ArchiveOrRemove;
    case FVExistence::Unknown:
        break;
    }
    unreadableSourcePaths_.push_back(sourcePath);
    std::string message = fmt::format("ERROR: Could not check whether {} still exists ({}); its backup {} is kept.",
                                      sourcePath, std::strerror(error), entry.path);
    logLine(message);
    addError(message);
    return CleanupDecision::Keep;
}

// The copy pass has given the folder the source folder's dates; taking an entry out must not
// change them, or the mirror's folders would never match their sources.
void FVSyncingBackup::keepingParentDates(const std::string& itemPath, const std::function<void()>& change) {
    auto relative = destinationRelative(FVText::deletingLastPathComponent(itemPath));
    int error = 0;
    FVFd parent = relative ? destination_.openFolder(*relative, false, &error) : FVFd();
    struct stat st {};
    bool known = parent.valid() && fstat(parent.get(), &st) == 0;
    change();
    if (!known) return;
    timespec times[2] = {st.st_atim, st.st_mtim};
    futimens(parent.get(), times);
}

void FVSyncingBackup::removeDeletedItem(const std::string& sourceRoot, const std::string& relative,
                                        const std::string& itemPath) {
    unlockWithinDestination(itemPath);
    verboseLog("Removing: " + itemPath);
    if (archive_) {
        std::string archivePath =
            syncMode_ ? fmt::format("{}/__removed/{}/{}/{}", targetPath_, archiveFolderName_,
                                    FVText::lastPathComponent(sourceRoot), relative)
                      : appendComponent(fmt::format("{}/__removed/{}/", targetPath_, archiveFolderName_),
                                        appendComponent(sourceRoot, relative).substr(1));
        if (moveWithinDestination(itemPath, archivePath) == 0) return;
        unlockWithinDestination(FVText::deletingLastPathComponent(itemPath));
        int error = moveWithinDestination(itemPath, archivePath);
        if (error == 0 || stopOnFatalDestinationError(error)) return;
        // The item stays in the mirror: it is never deleted in place of a failed archive move.
        logLine(fmt::format("ERROR: Archiving deleted file failed: {} ({})", itemPath, std::strerror(error)));
        addError("Archiving deleted file failed: " + itemPath);
        return;
    }
    if (removeWithinDestination(itemPath) == 0) return;
    unlockWithinDestination(FVText::deletingLastPathComponent(itemPath));
    unlockWithinDestination(itemPath, true);
    int error = removeWithinDestination(itemPath);
    if (error == 0 || stopOnFatalDestinationError(error)) return;
    logLine(fmt::format("ERROR: Deleting failed: {} ({})", itemPath, std::strerror(error)));
    addError("Deleting failed: " + itemPath);
}

void FVSyncingBackup::purgeRemovedArchive(bool purgeRemoved, int32_t removedAge, bool purgeChanged,
                                          int32_t changedAge) {
    if (purgeRemoved) purgeFolder(targetPath_ + "/__removed", removedAge);
    if (purgeChanged) purgeFolder(targetPath_ + "/__changed", changedAge);
}

void FVSyncingBackup::purgeFolder(const std::string& folder, int32_t age) {
    DIR* dir = opendir(folder.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(dir)) {
        std::string_view name = e->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    closedir(dir);
    const double now = FVDate::now();
    for (const std::string& name : names) {
        std::string path = folder + "/" + name;
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) continue;
        double offset = static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9 - now;
        int32_t days = static_cast<int32_t>(offset) / -86400;
        if (days < age) continue;
        bool removed = removeWithinDestination(path) == 0;
        if (!removed) {
            unlockWithinDestination(path, true);
            removed = removeWithinDestination(path) == 0;
        }
        if (removed) {
            logLine(fmt::format("Removed archive {} (age: {} days)", path, days));
        } else {
            std::string message = fmt::format("WARNING: Could not removed archive {} (age: {} days)", path, days);
            logLine(message);
            addError(message);
        }
    }
}

}  // namespace ferrovane
