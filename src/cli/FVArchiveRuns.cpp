#include "cli/FVArchiveRuns.h"

#include "fs/FVDirectoryWalker.h"
#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVVersionCatalog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ferrovane {

FVArchiveRuns FVArchiveRuns::read(const std::string& destination) {
    FVArchiveRuns archives;
    // Only the archive folders are read: the sources do not matter.
    const FVMirrorLayout layout(destination, true, {});
    archives.add(layout.archiveRoot(FVArchiveKind::Changed), &FVArchiveRun::changed);
    archives.add(layout.archiveRoot(FVArchiveKind::Removed), &FVArchiveRun::removed);
    std::stable_sort(archives.runs_.begin(), archives.runs_.end(), [](const FVArchiveRun& a, const FVArchiveRun& b) {
        return a.time != b.time ? a.time > b.time : a.stamp > b.stamp;
    });
    return archives;
}

FVArchiveRun& FVArchiveRuns::run(const std::string& stamp, std::time_t time) {
    auto found = std::find_if(runs_.begin(), runs_.end(), [&](const FVArchiveRun& r) { return r.stamp == stamp; });
    if (found != runs_.end()) return *found;
    return runs_.emplace_back(FVArchiveRun{stamp, time, {}, {}});
}

// One walk of the archive: its children are the stamp folders, everything deeper is theirs.
void FVArchiveRuns::add(const std::string& archive, FVArchiveHolding FVArchiveRun::*kind) {
    FVDirectoryWalker walker(archive);
    FVArchiveHolding* holding = nullptr;
    // A folder whose emptiness shows only with the entry after it.
    std::string openFolder;
    size_t openLevel = 0;
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (!openFolder.empty() && holding) {
            bool entered = entry->level > openLevel;
            bool unlisted = entry->error != 0 && entry->path == openFolder;
            if (!entered && !unlisted) ++holding->items;
        }
        openFolder.clear();
        if (entry->error != 0) {
            if (entry->level == 0 && entry->error == ENOENT) return;  // no run archived here yet
            problems_.push_back(entry->path + ": " + std::strerror(entry->error));
            continue;
        }
        if (entry->level == 0) continue;
        if (entry->level == 1) {
            auto time = FVVersionCatalog::stampTime(std::string(entry->name()));
            holding = time && entry->isDirectory() ? &(run(std::string(entry->name()), *time).*kind) : nullptr;
            if (!holding) walker.skipChildren();
            continue;
        }
        if (entry->isDirectory()) {
            openFolder = entry->path;
            openLevel = entry->level;
            continue;
        }
        ++holding->items;
        if (S_ISREG(entry->st.st_mode)) holding->bytes += static_cast<uint64_t>(entry->st.st_size);
    }
    if (!openFolder.empty() && holding) ++holding->items;
}

}  // namespace ferrovane
