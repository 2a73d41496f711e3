// The copy worker's delegate: archiving files before they are overwritten, turning worker
// messages into log lines and errors, and closing an item when its worker is done.

#include "engine/FVAdditions.h"
#include "engine/FVLog.h"
#include "engine/FVSyncingBackup.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

std::optional<std::string> FVSyncingBackup::destinationRelative(const std::string& path) const {
    std::string folded;
    folded.reserve(path.size());
    for (char c : path)
        if (!(c == '/' && !folded.empty() && folded.back() == '/')) folded.push_back(c);
    return destination_.relativePath(folded);
}

int FVSyncingBackup::moveWithinDestination(const std::string& from, const std::string& to) {
    auto fromRelative = destinationRelative(from);
    auto toRelative = destinationRelative(to);
    // The target's missing folders are made by the move itself, so that a failure to make them
    // (a read-only or full destination) is the error the move reports.
    return fromRelative && toRelative ? destination_.moveItem(*fromRelative, *toRelative, true, true) : EXDEV;
}

int FVSyncingBackup::removeWithinDestination(const std::string& path) {
    auto relative = destinationRelative(path);
    return relative && !relative->empty() ? destination_.removeItem(*relative) : EXDEV;
}

bool FVSyncingBackup::stopOnFatalDestinationError(int error) {
    if (error != EROFS && error != ENOSPC && error != EDQUOT) return false;
    if (auto worker = backupCopyWorker()) worker->stopOnDestinationError(error);
    cancelUpdate();
    return true;
}

void FVSyncingBackup::unlockWithinDestination(const std::string& path, bool recursively) {
    auto relative = destinationRelative(path);
    if (!relative) return;
    int error = 0;
    if (relative->empty()) {
        FVFd root = destination_.openFolder("", false, &error);
        if (root.valid()) FVFileManager::unlockFileAt(root.get(), "");
        return;
    }
    FVFd parent = destination_.openFolder(FVText::deletingLastPathComponent(*relative), false, &error);
    if (!parent.valid()) return;
    const std::string name = FVText::lastPathComponent(*relative);
    if (recursively) FVFileManager::unlockRecursivelyAt(parent.get(), name);
    else FVFileManager::unlockFileAt(parent.get(), name);
}

bool FVSyncingBackup::copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) {
    if (!archiveChangedFiles_ || !destination.fileExists()) return true;
    const std::string& path = destination.path();
    std::string relative = path.substr(targetPath_.size());
    std::string archivePath = targetPath_ + "/__changed/" + archiveFolderName_;
    if (relative.empty() || relative.front() != '/') archivePath += "/";
    archivePath += relative;
    unlockWithinDestination(path);
    if (moveWithinDestination(path, archivePath) == 0) return true;
    unlockWithinDestination(FVText::deletingLastPathComponent(path));
    int error = moveWithinDestination(path, archivePath);
    if (error == 0) {
        verboseLog("Archived changed file: " + path);
        return true;
    }
    // The old version stays where it is and the file is not copied this time: overwriting it
    // now would lose the only copy of that version. The next run tries again.
    if (stopOnFatalDestinationError(error)) return false;
    const char* reason = std::strerror(error);
    logLine(fmt::format("ERROR: Archiving of changed file failed: {} ({})", path, reason));
    addError("Archiving changed file failed: " + path);
    FVSystemLog::error("FVSyncingBackup",
                       fmt::format("Archiving changed file failed: {} -> {} ({})", path, archivePath, reason));
    return false;
}

void FVSyncingBackup::copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) {
    logLine(message);
    if (level == FVMessageLevel::Error) addError(message);
}

void FVSyncingBackup::copyWorkerProgressDidChange(float fraction) {
    copyProgressStatus_ = fraction * 100.0f;
    reportProgress();
}

void FVSyncingBackup::copyWorkerDidCancel() { postCancelOnce(); }

void FVSyncingBackup::copyWorkerDidFinishCopy() {
    // A worker cancelled before any pair was queued reports a finish; the run is over all the same.
    if (isCancelled()) {
        postCancelOnce();
        return;
    }
    copyProgressStatus_ = 100;
    reportProgress();
    if (currentSourcePath_ == "/") {
        // A clone of the whole system: the destination root takes the root folder's attributes.
        struct stat st {};
        if (lstat("/", &st) == 0) {
            int ignored = lchown(targetPath_.c_str(), st.st_uid, st.st_gid);
            (void)ignored;
            chmod(targetPath_.c_str(), st.st_mode & 07777);
        }
    }
    auto worker = backupCopyWorker();
    logLine(fmt::format("Source finished: {} ({} copied).", currentSourcePath_,
                        FVNumber::formattedDiskSizeString(static_cast<double>(worker ? worker->totalBytesCopied() : 0))));
    observer_->updateTargetDidFinish(*this);
}

}  // namespace ferrovane
