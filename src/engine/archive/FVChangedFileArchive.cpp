#include "engine/archive/FVChangedFileArchive.h"

#include "engine/archive/FVArchiveMove.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

std::optional<std::string> FVChangedFileArchive::archivePath(const std::string& destinationPath,
                                                             FVArchiveKind kind) const {
    const FVMirrorLayout layout = settings_.layout();
    const std::optional<std::string> relative = layout.relativePathOfDestinationPath(destinationPath);
    if (!relative) return std::nullopt;
    return layout.archivePath(kind, settings_.archiveFolderName, *relative);
}

bool FVChangedFileArchive::archiveBeforeOverwrite(FVFileSystemItem& destination) {
    if (!destination.fileExists()) return true;
    // Only a folder whose source is something else now is replaced: its contents were removed
    // from the source, as if the folder had been deleted.
    const bool folder = destination.fileType() == FVFileType::Directory;
    if (!(folder ? settings_.options.moveDeletedFiles : settings_.options.moveChangedFiles)) return true;
    const char* what = folder ? "replaced folder" : "changed file";
    const std::string& path = destination.path();
    const std::optional<std::string> archived =
        archivePath(path, folder ? FVArchiveKind::Removed : FVArchiveKind::Changed);
    // A path outside the destination has no place in an archive: it is kept, never moved into
    // the stamp folder itself.
    if (!archived) {
        status_.report(FVRunError::item("archiving", 0, path,
                                        fmt::format("Archiving {} failed: {} lies outside the destination", what, path)));
        return false;
    }
    const FVArchiveMove archive(destination_, status_, !settings_.options.disableACLClone,
                                settings_.destinationProfile);
    destination_.unlock(path);
    int error = archive.move(path, *archived, &destination.statBuffer());
    if (error != 0) {
        destination_.unlock(FVText::deletingLastPathComponent(path));
        error = archive.move(path, *archived, &destination.statBuffer());
    }
    if (error == 0) {
        ++status_.archivedCount;
        status_.changed(FVItemChange::Archived, path);
        status_.verboseLog(fmt::format("Archived {}: {}", what, path));
        return true;
    }
    // The old version stays where it is and the item is not copied this time: overwriting it
    // now would lose the only copy of that version. The next run tries again.
    if (status_.stopOnFatalDestinationError(error, "archiving", path)) return false;
    const char* reason = std::strerror(error);
    status_.log(fmt::format("ERROR: Archiving of {} failed: {} ({})", what, path, reason));
    status_.addError(fmt::format("Archiving {} failed: {} ({})", what, path, reason));
    FVSystemLog::error("FVSyncingBackup",
                       fmt::format("Archiving {} failed: {} -> {} ({})", what, path, *archived, reason));
    return false;
}

}  // namespace ferrovane
