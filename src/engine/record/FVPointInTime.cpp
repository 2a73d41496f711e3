#include "engine/record/FVPointInTime.h"

#include "manifest/FVManifestReader.h"

#include <algorithm>

namespace ferrovane {

std::optional<FVPointInTime> FVPointInTime::open(const std::string& destination, const FVRunRecord& run,
                                                 std::string* problem) {
    auto reader = FVManifestReader::open(run.path, problem);
    if (!reader) return std::nullopt;
    const FVManifestHeader& header = reader->header();
    return FVPointInTime(run, FVMirrorLayout(destination, header.folderPerSource, header.sources));
}

bool FVPointInTime::forEachAtOrBelow(const std::string& path,
                                     const std::function<void(const FVManifestEntry&)>& visit,
                                     std::string* problem) const {
    auto reader = FVManifestReader::open(run_.path, problem);
    if (!reader) return false;
    FVManifestEntry entry;
    while (reader->next(entry))
        if (isManifestPathAtOrBelow(entry.path, path)) visit(entry);
    if (reader->damaged()) {
        *problem = reader->error();
        return false;
    }
    return true;
}

std::optional<std::vector<FVManifestEntry>> FVPointInTime::entriesIn(const std::string& folder,
                                                                     std::string* problem) const {
    std::vector<FVManifestEntry> found;
    bool whole = forEachAtOrBelow(folder, [&](const FVManifestEntry& entry) {
        if (entry.path.size() > folder.size() + 1 && entry.path.find('/', folder.size() + 1) == std::string::npos)
            found.push_back(entry);
    }, problem);
    if (!whole) return std::nullopt;
    std::sort(found.begin(), found.end(),
              [](const FVManifestEntry& a, const FVManifestEntry& b) { return a.path < b.path; });
    return found;
}

std::optional<FVManifestEntry> FVPointInTime::entryAt(const std::string& path, std::string* problem) const {
    std::optional<FVManifestEntry> found;
    problem->clear();
    if (!forEachAtOrBelow(path, [&](const FVManifestEntry& entry) {
            if (entry.path == path) found = entry;
        }, problem))
        return std::nullopt;
    return found;
}

}  // namespace ferrovane
