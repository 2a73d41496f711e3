#include "engine/archive/FVArchivePurge.h"

#include "engine/run/FVDate.h"
#include "engine/run/FVNumber.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileStatus.h"

#include <dirent.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <cstring>
#include <vector>

namespace ferrovane {

void FVArchivePurge::run() {
    const FVOptions& options = settings_.options;
    const FVMirrorLayout layout = settings_.layout();
    if (options.purgesRemovedArchives())
        purgeFolder(layout.archiveRoot(FVArchiveKind::Removed), options.purgeRemovedArchiveDays);
    if (options.purgesChangedArchives())
        purgeFolder(layout.archiveRoot(FVArchiveKind::Changed), options.purgeChangedArchiveDays);
}

void FVArchivePurge::purgeFolder(const std::string& folder, int64_t age) {
    DIR* dir = FVDirectoryEntries::opendir(folder.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent* e = FVDirectoryEntries::readdir(dir)) {
        std::string_view name = e->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    FVDirectoryEntries::closedir(dir);
    const double now = FVDate::now();
    for (const std::string& name : names) {
        if (status_.isCancelled()) return;
        std::string path = folder + "/" + name;
        struct stat st {};
        if (FVFileStatus::lstat(path.c_str(), &st) != 0) continue;
        double offset = static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9 - now;
        int32_t days = static_cast<int32_t>(offset) / -86400;
        if (days < static_cast<int32_t>(age)) continue;
        if (settings_.dryRun) {
            status_.planned("Would purge: " + path);
            continue;
        }
        const int error = destination_.removeUnlocking(path);
        if (error == 0) {
            status_.log(fmt::format("Removed archive {} (age: {})", path, FVNumber::counted(static_cast<uint64_t>(days), "day")));
        } else {
            const std::string message = fmt::format("Could not remove archive {} (age: {}): {}", path,
                                                    FVNumber::counted(static_cast<uint64_t>(days), "day"),
                                                    std::strerror(error));
            if (status_.report(
                    FVRunError::atDestination("purging", error, path, message, FVRunError::Kind::Warning).listedWithLevel()))
                return;
        }
    }
}

}  // namespace ferrovane
