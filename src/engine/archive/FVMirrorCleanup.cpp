#include "engine/archive/FVMirrorCleanup.h"

#include "engine/analysis/FVExclusionRules.h"
#include "engine/archive/FVArchiveMove.h"
#include "engine/config/FVDestinationNames.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/run/FVNumber.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFolderContents.h"
#include "fs/FVText.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

namespace {

bool isEmptyDirectory(const std::string& path) {
    return FVFileSystemItem(path).fileType() == FVFileType::Directory && FVFolderContents::folderHasEntries(path) == false;
}

}  // namespace

bool FVMirrorCleanup::run(const std::vector<FVSourceItemPtr>& backupSet, int32_t expectedCount) {
    status_.log(archives() ? "Archiving deleted items..." : "Removing deleted items...");
    status_.restartProgress(0);
    expectedCount_ = expectedCount;
    for (const FVSourceItemPtr& item : backupSet) {
        if (item->mode() != FVSourceMode::Backup) continue;
        std::string sourceRoot = item->sourcePath();
        // A missing source (an unmounted volume) keeps its mirror untouched until it is back.
        if (!FVFileStatus::pathExists(sourceRoot)) continue;
        auto confirmed = item->value(FVSourceKey::emptySourceConfirmed);
        if (!cleanSourceRoot(sourceRoot, confirmed && confirmed->boolValue())) return false;
    }
    if (!settings_.dryRun)
        status_.log((archives() ? "Archiving deleted items finished: archived " : "Removing deleted items finished: removed ") +
                    FVNumber::counted(handled_, "item") + ".");
    status_.setCopyProgress(100);
    status_.setAnalyseProgress(100);
    status_.reportProgress();
    return true;
}

bool FVMirrorCleanup::cleanSourceRoot(const std::string& sourceRoot, bool emptySourceConfirmed) {
    if (findings_.isBelowUnreadableSource(sourceRoot)) return true;
    const std::string mirror = settings_.itemTargetPath(sourceRoot);
    // An empty source folder whose mirror is full is most likely a volume that is not mounted:
    // deleting the mirror would destroy the only copy. Archiving keeps it, so only deletion waits
    // until the user confirms that the folder really was emptied.
    if (!archives() && !emptySourceConfirmed && isEmptyDirectory(sourceRoot) &&
        FVFileSystemItem(mirror).fileType() == FVFileType::Directory && FVFolderContents::folderHasEntries(mirror) != false) {
        status_.report(FVRunError::item(
            "removing", 0, mirror,
            fmt::format("Not removing the contents of {}: its source {} is empty (a volume that is not mounted?). "
                        "If the folder really was emptied, confirm it (\"ferrovane config {} confirm-empty {}\" or "
                        "\"Confirm Emptied Folder…\" in the window's error list); the next run then removes the "
                        "backup's contents.",
                        mirror, sourceRoot, settings_.targetPath, sourceRoot)));
        return true;
    }

    auto folders = findings_.mirrorFoldersToClean.find(sourceRoot);
    if (folders == findings_.mirrorFoldersToClean.end()) return true;
    for (const std::string& folder : folders->second)
        if (!cleanFolder(sourceRoot, mirror, folder)) return false;
    return true;
}

// Only the folder's own entries: its subfolders that the source still has were looked at by the
// analysis on their own.
bool FVMirrorCleanup::cleanFolder(const std::string& sourceRoot, const std::string& mirror, const std::string& folder) {
    const std::string sourceFolder = FVText::appendingPathComponent(sourceRoot, folder);
    if (findings_.isBelowUnreadableSource(sourceFolder)) return true;
    FVDirectoryWalker walker(mirror + folder);
    sourceFolderNames_.reset();
    walker.setTypesOnly(true);
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (entry->level == 0) continue;
        if (entry->isDirectory()) walker.skipChildren();
        const mode_t type = entry->st.st_mode & S_IFMT;
        if (entry->error != 0 || (type != S_IFDIR && type != S_IFREG && type != S_IFLNK)) continue;
        if (status_.isCancelled()) return false;
        const std::string& path = entry->path;
        std::string relative = folder + std::string(entry->relativePath());
        std::string sourcePath = FVText::appendingPathComponent(sourceRoot, relative);
        const Decision decision = decide(sourceRoot, sourcePath, *entry);
        switch (decision) {
        case Decision::Keep: break;
        case Decision::RemoveLeftover:
            if (settings_.dryRun) status_.planned("Would remove: " + path);
            else destination_.keepingParentDates(path, [&] { destination_.removeItem(path); });
            break;
        case Decision::ArchiveOrRemove:
        case Decision::Archive: {
            const bool archive = archives() || decision == Decision::Archive;
            if (settings_.dryRun) {
                status_.planned((archive ? "Would archive: " : "Would remove: ") + path);
                status_.tally.add(archive ? FVItemChange::Archived : FVItemChange::Deleted);
            } else destination_.keepingParentDates(path, [&] { removeDeletedItem(sourceRoot, relative, path, archive); });
            ++handled_;
            break;
        }
        }
        ++visited_;
        float progress = static_cast<float>(visited_) * 100.0f / static_cast<float>(expectedCount_);
        status_.setCopyProgress(progress);
        status_.setAnalyseProgress(progress);
        status_.reportProgress();
    }
    return true;
}

// A source that cannot be looked up (no permission, an I/O error) keeps its mirror and
// everything below it.
FVMirrorCleanup::Decision FVMirrorCleanup::decide(const std::string& sourceRoot, const std::string& sourcePath,
                                                  const FVDirectoryWalker::Entry& entry) {
    // Leftovers of an interrupted copy, and of a probe in the destination's root, are no user
    // files: they simply go, unarchived.
    const bool probeFolder = entry.name() == FVMirrorLayout::kProbeFolder &&
                             entry.path == FVText::appendingPathComponent(settings_.targetPath, FVMirrorLayout::kProbeFolder);
    if (((FVMirrorLayout::isTemporaryName(entry.name()) && !S_ISDIR(entry.st.st_mode)) || probeFolder) &&
        FVFileStatus::existenceAtPath(sourcePath) == FVExistence::Missing)
        return Decision::RemoveLeftover;
    if (FVExclusionRules::fileShouldBeExcluded(sourcePath, settings_.protectedPaths, nullptr) ||
        FVText::lastPathComponent(sourcePath).rfind("._", 0) == 0 || findings_.isBelowUnreadableSource(sourcePath))
        return Decision::Keep;
    // What a clone of the whole system leaves out is the destination volume's own business.
    if (sourceRoot == "/" &&
        FVExclusionRules::fileShouldBeExcluded(sourcePath, FVExclusionRules::rootClonePatterns(), nullptr))
        return Decision::Keep;
    if (findings_.isWithinDestination(sourcePath)) return Decision::ArchiveOrRemove;
    if (FVExclusionRules::fileShouldBeExcluded(sourcePath, findings_.excludedFiles, nullptr) ||
        exclusions_.excludes(sourcePath, std::string_view(sourcePath).substr(sourceRoot.size()), entry.isDirectory())) {
        // Leaving an item out is no reason to lose its backup: it goes to the archive, also where
        // removed items are not kept, so that the mirror is the sources without what is left out.
        if (!archives())
            status_.log(fmt::format("Archiving {}: its source is excluded now (its only backup is archived although "
                                    "removed items are not kept).", entry.path));
        return Decision::Archive;
    }
    int error = 0;
    mode_t type = 0;
    switch (FVFileStatus::existenceAtPath(sourcePath, &error, &type)) {
    case FVExistence::Exists:
        // A source that became a FIFO, socket or device is passed over by the walk: what its
        // name held before is gone from the source.
        return S_ISDIR(type) || S_ISREG(type) || S_ISLNK(type) ? Decision::Keep : Decision::ArchiveOrRemove;
    case FVExistence::Missing:
        // Where the destination does not tell cases apart, a source renamed only in case still
        // has this mirror (under its old name).
        if (settings_.destinationProfile.caseInsensitive) {
            if (!sourceFolderNames_)
                sourceFolderNames_ = FVDestinationNames::foldedNamesIn(FVText::deletingLastPathComponent(sourcePath));
            if (sourceFolderNames_->contains(FVDestinationNames::folded(FVText::lastPathComponent(sourcePath))))
                return Decision::Keep;
        }
        return Decision::ArchiveOrRemove;
    case FVExistence::Unknown:
        break;
    }
    findings_.unreadableSourcePaths.push_back(sourcePath);
    status_.report(FVRunError::item("checking", error, sourcePath,
                                    fmt::format("Could not check whether {} still exists ({}); its backup {} is kept.",
                                                sourcePath, std::strerror(error), entry.path))
                       .listedWithLevel());
    return Decision::Keep;
}

void FVMirrorCleanup::removeDeletedItem(const std::string& sourceRoot, const std::string& relative,
                                        const std::string& itemPath, bool archive) {
    destination_.unlock(itemPath);
    status_.verboseLog("Removing: " + itemPath);
    if (archive) {
        const FVMirrorLayout layout = settings_.layout();
        const std::string archivePath = layout.archivePath(
            FVArchiveKind::Removed, settings_.archiveFolderName,
            layout.mirrorRelativePath(sourceRoot) + (relative.empty() || relative.front() == '/' ? "" : "/") + relative);
        const FVArchiveMove archive(destination_, status_, !settings_.options.disableACLClone,
                                    settings_.destinationProfile);
        int error = archive.move(itemPath, archivePath);
        if (error != 0) {
            destination_.unlock(FVText::deletingLastPathComponent(itemPath));
            error = archive.move(itemPath, archivePath);
        }
        if (error == 0) {
            ++status_.archivedCount;
            ++status_.removedCount;
            status_.changed(FVItemChange::Archived, itemPath);
            return;
        }
        // The item stays in the mirror: it is never deleted in place of a failed archive move.
        // The error list carries the reason too: it is all a user sees of the failure.
        status_.report(FVRunError::atDestination(
            "archiving", error, itemPath, fmt::format("Archiving deleted file failed: {} ({})", itemPath, std::strerror(error))));
        return;
    }
    int error = destination_.removeItem(itemPath);
    if (error != 0) {
        destination_.unlock(FVText::deletingLastPathComponent(itemPath));
        destination_.unlock(itemPath, true);
        error = destination_.removeItem(itemPath);
    }
    if (error == 0) {
        ++status_.removedCount;
        status_.changed(FVItemChange::Deleted, itemPath);
        return;
    }
    status_.report(FVRunError::atDestination("removing", error, itemPath,
                                             fmt::format("Deleting failed: {} ({})", itemPath, std::strerror(error))));
}

}  // namespace ferrovane
