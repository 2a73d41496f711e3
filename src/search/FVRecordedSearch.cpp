#include "search/FVRecordedSearch.h"

#include "engine/FVMirrorLayout.h"
#include "manifest/FVManifestReader.h"
#include "search/FVSearchCandidates.h"

#include <sys/stat.h>

#include <array>

namespace ferrovane {

namespace {

uint64_t mixed(uint64_t seed, uint64_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
    return seed;
}

uint64_t hashOf(std::string_view bytes) { return std::hash<std::string_view>{}(bytes); }

// Two entries with one fingerprint record the same item. Anything that can make a run archive
// the item counts; a difference that only touched the mirror in place costs one look too many,
// never a version left out.
uint64_t fingerprint(const FVManifestEntry& entry) {
    uint64_t f = mixed(uint64_t(entry.type), entry.size);
    f = mixed(f, uint64_t(entry.modificationTimeNs));
    f = mixed(f, entry.hash ? entry.hash->high : 0);
    f = mixed(f, entry.hash ? entry.hash->low : 1);
    f = mixed(f, hashOf(entry.linkTarget));
    for (const auto& [name, value] : entry.attributes) f = mixed(mixed(f, hashOf(name)), hashOf(value));
    f = mixed(f, entry.mode);
    f = mixed(f, uint64_t(entry.owner) << 32 | entry.group);
    return mixed(f, entry.failed);
}

FVSearchCandidates::Kind kindOf(FVManifestEntryType type) {
    switch (type) {
    case FVManifestEntryType::Folder: return FVSearchCandidates::Kind::Folder;
    case FVManifestEntryType::File:
    case FVManifestEntryType::Link: return FVSearchCandidates::Kind::FileOrLink;
    case FVManifestEntryType::Other: return FVSearchCandidates::Kind::Other;
    }
    return FVSearchCandidates::Kind::Other;
}

std::string archiveRelative(const char* archive, const std::string& stamp, const std::string& path) {
    return std::string(archive) + "/" + stamp + path;
}

}  // namespace

FVRecordedSearch::FVRecordedSearch(std::string destination, const FVSearchPlan& plan, const FVSearchQuery& query,
                                   FVRecordedSearchSink& sink)
    : destination_(std::move(destination)), confined_(destination_.empty() ? "/" : destination_), plan_(plan), query_(query), sink_(sink) {}

FVRecordedSearch::Read FVRecordedSearch::forEachMatch(const std::string& manifest,
                                                      const std::function<void(const FVManifestEntry&)>& visit) {
    std::string problem;
    auto reader = FVManifestReader::open(manifest, &problem);
    if (!reader) {
        sink_.warn(problem);
        return Read::Damaged;
    }
    FVManifestEntry entry;
    while (reader->next(entry)) {
        if (sink_.stopped()) return Read::Stopped;
        std::string_view path = entry.path;
        std::string_view name = path.substr(path.rfind('/') + 1);
        if (query_.matches(name) && FVSearchCandidates::isCandidate(name, kindOf(entry.type)) &&
            FVSearchCandidates::entersEveryFolderAbove(path))
            visit(entry);
    }
    if (reader->damaged()) {
        sink_.warn(reader->error());
        return Read::Damaged;
    }
    return Read::Whole;
}

bool FVRecordedSearch::exists(const std::string& relative) const {
    struct stat st {};
    return confined_.statItem(std::string_view(relative).substr(1), &st) == 0;
}

void FVRecordedSearch::walkArchivesOf(const std::string& stamp) {
    for (const char* archive : {FVMirrorLayout::kChangedFolder, FVMirrorLayout::kRemovedFolder})
        if (!sink_.stopped()) sink_.walk(destination_ + "/" + archive + "/" + stamp, false);
}

void FVRecordedSearch::run() {
    const std::vector<FVSearchPlan::Run>& runs = plan_.runs();
    Matches newer;
    Read read = forEachMatch(runs.front().manifest, [&](const FVManifestEntry& entry) {
        newer[hashOf(entry.path)] = fingerprint(entry);
        if (exists(entry.path)) sink_.report(destination_ + entry.path);
    });
    if (read == Read::Damaged) sink_.walk(destination_, true);
    if (read != Read::Whole) return;
    // The run whose manifest newer holds; "" when none does.
    std::string newerStamp = runs.front().stamp;
    for (size_t i = 0; i < runs.size() && !sink_.stopped(); ++i) {
        const std::string& stamp = runs[i].stamp;
        if (!plan_.tellsArchivesOf(i)) {
            walkArchivesOf(stamp);
            continue;
        }
        if (newerStamp != stamp) {
            newer.clear();
            read = forEachMatch(runs[i].manifest, [&](const FVManifestEntry& entry) {
                newer[hashOf(entry.path)] = fingerprint(entry);
            });
            if (read == Read::Stopped) return;
            if (read == Read::Damaged) {
                newerStamp.clear();
                walkArchivesOf(stamp);
                continue;
            }
        }
        Matches older;
        read = forEachMatch(runs[i + 1].manifest, [&](const FVManifestEntry& entry) {
            uint64_t fingerprintOfEntry = fingerprint(entry);
            older[hashOf(entry.path)] = fingerprintOfEntry;
            auto later = newer.find(hashOf(entry.path));
            // A folder is in the archive as well when anything inside it was displaced, which the
            // matches alone cannot tell.
            if (entry.type != FVManifestEntryType::Folder && later != newer.end() && later->second == fingerprintOfEntry)
                return;
            for (const char* archive : {FVMirrorLayout::kChangedFolder, FVMirrorLayout::kRemovedFolder}) {
                std::string relative = "/" + archiveRelative(archive, stamp, entry.path);
                if (exists(relative)) sink_.report(destination_ + relative);
            }
        });
        if (read == Read::Stopped) return;
        if (read == Read::Damaged) {
            newerStamp.clear();
            walkArchivesOf(stamp);
            continue;
        }
        newer = std::move(older);
        newerStamp = runs[i + 1].stamp;
    }
}

}  // namespace ferrovane
