#include "engine/archive/FVThinningPlan.h"

#include "engine/archive/FVDestinationTree.h"
#include "engine/record/FVVersionCatalog.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileStatus.h"
#include "fs/FVLinks.h"
#include "fs/FVOpenFiles.h"
#include "manifest/FVManifestReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>

namespace ferrovane {

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

std::optional<FVManifestEntryType> entryType(mode_t mode) {
    if (S_ISREG(mode)) return FVManifestEntryType::File;
    if (S_ISDIR(mode)) return FVManifestEntryType::Folder;
    if (S_ISLNK(mode)) return FVManifestEntryType::Link;
    return FVManifestEntryType::Other;
}

}  // namespace

struct FVThinningPlan::Folder {
    struct Item {
        std::string path;  // relative to the mirror, as the record names it
        FVManifestEntryType type = FVManifestEntryType::File;
        uint64_t size = 0;
        int64_t modificationTimeNs = 0;
        std::string linkTarget;
        size_t parent = kNone;
        bool hasChildren = false;
        bool shown = false;  // the record shows this version (a folder: a folder there)
        bool kept = false;
        uint64_t items = 1, bytes = 0;  // of the item and all below it
    };

    std::string stamp;
    std::string root;
    bool stampKept = false;
    std::vector<Item> items;  // each folder before what it holds
    uint64_t bytes = 0;
};

// Reached from the destination's root, never through a link.
bool FVThinningPlan::list(Folder& folder) const {
    const FVDestinationTree tree(layout_.destination());
    int error = 0;
    FVFd rootFd = tree.openFolder(folder.root, false, &error);
    if (!rootFd.valid()) return false;
    std::vector<Folder::Item>& items = folder.items;
    // Each open folder with the index of its item (kNone for the root); depth first.
    std::function<bool(int, std::string, size_t)> walk = [&](int fd, std::string prefix, size_t parent) {
        DIR* dir = FVDirectoryEntries::fdopendir(fd);
        if (!dir) {
            FVOpenFiles::close(fd);
            return false;
        }
        std::vector<std::string> names;
        // A listing cut short by an error is not the whole folder: what it missed may be needed.
        bool whole = true;
        for (;;) {
            errno = 0;
            dirent* e = FVDirectoryEntries::readdir(dir);
            if (!e) {
                whole = errno == 0;
                break;
            }
            std::string_view name = e->d_name;
            if (name != "." && name != "..") names.emplace_back(name);
        }
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            struct stat st {};
            if (FVFileStatus::fstatat(FVDirectoryEntries::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                whole = false;
                continue;
            }
            Folder::Item item;
            item.path = prefix + "/" + name;
            item.type = *entryType(st.st_mode);
            item.size = static_cast<uint64_t>(st.st_size);
            item.modificationTimeNs = int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec;
            item.bytes = S_ISREG(st.st_mode) ? item.size : 0;
            item.parent = parent;
            if (S_ISLNK(st.st_mode)) {
                std::string target(static_cast<size_t>(st.st_size) + 1, '\0');
                ssize_t n = FVLinks::readlinkat(FVDirectoryEntries::dirfd(dir), name.c_str(), target.data(), target.size());
                // A link whose target cannot be read cannot be matched against a record.
                if (n >= 0) item.linkTarget.assign(target.data(), static_cast<size_t>(n));
                else whole = false;
            }
            if (parent != kNone) items[parent].hasChildren = true;
            items.push_back(std::move(item));
            if (S_ISDIR(st.st_mode)) {
                int child = FVOpenFiles::openat(FVDirectoryEntries::dirfd(dir), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (child < 0 || !walk(child, items.back().path, items.size() - 1)) whole = false;
            }
        }
        FVDirectoryEntries::closedir(dir);
        return whole;
    };
    if (!walk(rootFd.release(), "", kNone)) return false;
    for (const Folder::Item& item : items) folder.bytes += item.bytes;
    return true;
}

bool FVThinningPlan::judge(std::vector<Folder*>& folders, const FVRunRecord& record) const {
    std::unordered_map<std::string, std::vector<Folder::Item*>> byPath;
    for (Folder* folder : folders)
        for (Folder::Item& item : folder->items) byPath[item.path].push_back(&item);
    std::string problem;
    std::unique_ptr<FVManifestReader> reader = FVManifestReader::open(record.path, &problem);
    if (!reader) return false;
    FVManifestEntry entry;
    while (reader->next(entry)) {
        auto found = byPath.find(entry.path);
        if (found == byPath.end()) continue;
        for (Folder::Item* item : found->second) {
            if (item->type != entry.type) continue;
            switch (item->type) {
            case FVManifestEntryType::Folder: item->shown = true; break;
            case FVManifestEntryType::Link: item->shown = item->linkTarget == entry.linkTarget; break;
            default:
                item->shown = item->size == entry.size &&
                              std::llabs(item->modificationTimeNs - entry.modificationTimeNs) < timeGranularityNs_;
            }
        }
    }
    return !reader->damaged() && reader->summary();
}

// A folder stays when it holds something that stays, or when it was empty and the record shows
// a folder there.
void FVThinningPlan::removeUnneeded(const Folder& folder, std::vector<FVThinningRemoval>& out) const {
    std::vector<Folder::Item> items = folder.items;
    bool anyKept = false;
    for (size_t i = items.size(); i-- > 0;) {
        Folder::Item& item = items[i];
        item.kept = item.type == FVManifestEntryType::Folder ? item.kept || (item.shown && !item.hasChildren) : item.shown;
        anyKept = anyKept || item.kept;
        if (item.parent == kNone) continue;
        items[item.parent].kept = items[item.parent].kept || item.kept;
        items[item.parent].items += item.items;
        items[item.parent].bytes += item.bytes;
    }
    if (!anyKept) return removeWhole(folder, out);
    for (const Folder::Item& item : items)
        if (!item.kept && (item.parent == kNone || items[item.parent].kept))
            out.push_back({folder.root + item.path, folder.stamp, false, item.items, item.bytes});
}

void FVThinningPlan::removeWhole(const Folder& folder, std::vector<FVThinningRemoval>& out) const {
    out.push_back({folder.root, folder.stamp, false, folder.items.size() + 1, folder.bytes});
}

// Long, and kept whole: its three steps (records, folders judged by a kept record, folders by their
// stamp) read the same kept flags of the same list of runs.
std::vector<FVThinningRemoval> FVThinningPlan::removals(const std::vector<FVArchivedRun>& listed, std::time_t now,
                                                        const std::string& comingRun) const {
    std::vector<const FVArchivedRun*> runs;
    for (const FVArchivedRun& run : listed) runs.push_back(&run);
    FVArchivedRun coming;
    if (!comingRun.empty()) {
        coming.stamp = comingRun;
        coming.time = std::max(FVVersionCatalog::stampTime(comingRun).value_or(now), runs.empty() ? 0 : runs.back()->time);
        runs.push_back(&coming);
    }
    const size_t n = runs.size();
    std::vector<FVThinningRemoval> out;
    if (n == 0) return out;
    const size_t newest = n - 1;

    auto isPoint = [&](size_t i) { return runs[i] == &coming || (runs[i]->record && runs[i]->record->complete()); };
    std::vector<std::time_t> pointTimes, allTimes;
    std::vector<size_t> pointIndex;
    for (size_t i = 0; i < n; ++i) {
        allTimes.push_back(runs[i]->time);
        if (!isPoint(i)) continue;
        pointTimes.push_back(runs[i]->time);
        pointIndex.push_back(i);
    }
    std::vector<bool> keptPoint(n, false);
    const std::vector<bool> keptPoints = policy_.keptRuns(pointTimes, now);
    for (size_t p = 0; p < pointIndex.size(); ++p) keptPoint[pointIndex[p]] = keptPoints[p];
    const std::vector<bool> keptStamp = policy_.keptRuns(allTimes, now);
    // A record that is no point in time (a stopped or failed run, a damaged file) is kept as long
    // as every run of its day is.
    std::vector<bool> keptRecord(n, false);
    for (size_t i = 0; i < n; ++i)
        keptRecord[i] = i == newest || (isPoint(i) ? keptPoint[i] : policy_.keepsEveryRunAt(runs[i]->time, now));

    for (size_t i = 0; i < n; ++i) {
        const FVArchivedRun& run = *runs[i];
        if (!run.record || keptRecord[i]) continue;
        struct stat st {};
        uint64_t bytes = FVFileStatus::lstat(run.record->path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
        out.push_back({run.record->path, run.stamp, true, 0, bytes});
    }

    // The folders to judge item by item, by the record that judges them.
    std::map<size_t, std::vector<Folder>> byJudge;
    std::vector<Folder> byStamp;
    for (size_t i = 0; i + 1 < n; ++i) {
        const FVArchivedRun& run = *runs[i];
        if (!run.hasArchives()) continue;
        // A run without a record (made before records existed, or its record could not be
        // written) counts as kept when the policy keeps its stamp.
        if (i > 0 && (runs[i - 1]->record || runs[i - 1] == &coming ? keptRecord[i - 1] : keptStamp[i - 1])) continue;
        size_t latestKept = kNone;
        for (size_t j = i; j-- > 0;)
            if (isPoint(j) && keptPoint[j]) {
                latestKept = j;
                break;
            }
        for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed}) {
            if (!(kind == FVArchiveKind::Changed ? run.hasChangedFolder : run.hasRemovedFolder)) continue;
            Folder folder;
            folder.stamp = run.stamp;
            folder.root = layout_.archiveFolder(kind, run.stamp);
            folder.stampKept = keptStamp[i];
            // What cannot be read whole stays as it is.
            if (!list(folder)) continue;
            if (latestKept == kNone) byStamp.push_back(std::move(folder));
            else byJudge[latestKept].push_back(std::move(folder));
        }
    }
    for (auto& [record, folders] : byJudge) {
        std::vector<Folder*> judged;
        for (Folder& folder : folders) judged.push_back(&folder);
        if (judge(judged, *runs[record]->record)) {
            for (const Folder& folder : folders) removeUnneeded(folder, out);
        } else {
            for (Folder& folder : folders) byStamp.push_back(std::move(folder));
        }
    }
    for (const Folder& folder : byStamp)
        if (!folder.stampKept) removeWhole(folder, out);
    std::stable_sort(out.begin(), out.end(), [](const FVThinningRemoval& a, const FVThinningRemoval& b) {
        return a.record && !b.record;
    });
    return out;
}

}  // namespace ferrovane
