#include "engine/FVChangedFileArchive.h"

#include "engine/FVArchiveMove.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

std::string FVChangedFileArchive::archivePath(const std::string& destinationPath) const {
    // The copy writes only inside the mirror, so the path always lies in the destination.
    const FVMirrorLayout layout = settings_.layout();
    return layout.archivePath(FVArchiveKind::Changed, settings_.archiveFolderName,
                              layout.relativePathOfDestinationPath(destinationPath).value_or(""));
}

bool FVChangedFileArchive::archiveBeforeOverwrite(FVFileSystemItem& destination) {
    if (!settings_.options.moveChangedFiles || !destination.fileExists()) return true;
    const std::string& path = destination.path();
    const std::string archived = archivePath(path);
    const FVArchiveMove archive(destination_, status_, !settings_.options.disableACLClone,
                                settings_.destinationProfile);
    destination_.unlock(path);
    if (archive.move(path, archived, &destination.statBuffer()) == 0) return true;
    destination_.unlock(FVText::deletingLastPathComponent(path));
    int error = archive.move(path, archived, &destination.statBuffer());
    if (error == 0) {
        status_.verboseLog("Archived changed file: " + path);
        return true;
    }
    // The old version stays where it is and the file is not copied this time: overwriting it
    // now would lose the only copy of that version. The next run tries again.
    if (status_.stopOnFatalDestinationError(error)) return false;
    const char* reason = std::strerror(error);
    status_.log(fmt::format("ERROR: Archiving of changed file failed: {} ({})", path, reason));
    status_.addError(fmt::format("Archiving changed file failed: {} ({})", path, reason));
    FVSystemLog::error("FVSyncingBackup", fmt::format("Archiving changed file failed: {} -> {} ({})", path, archived, reason));
    return false;
}

}  // namespace ferrovane
