#include "search/FVRecordedSearch.h"

#include "engine/config/FVMirrorLayout.h"
#include "manifest/FVManifestReader.h"
#include "search/FVDisplacedIndex.h"
#include "search/FVSearchCandidates.h"

#include <sys/stat.h>

namespace ferrovane {

namespace {

FVSearchCandidates::Kind kindOf(FVManifestEntryType type) {
    switch (type) {
    case FVManifestEntryType::Folder: return FVSearchCandidates::Kind::Folder;
    case FVManifestEntryType::File:
    case FVManifestEntryType::Link: return FVSearchCandidates::Kind::FileOrLink;
    case FVManifestEntryType::Other: return FVSearchCandidates::Kind::Other;
    }
    return FVSearchCandidates::Kind::Other;
}

}  // namespace

FVRecordedSearch::FVRecordedSearch(std::string destination, const FVSearchPlan& plan, const FVSearchQuery& query,
                                   FVRecordedSearchSink& sink, std::string cacheFolder)
    : destination_(std::move(destination)),
      cacheFolder_(std::move(cacheFolder)),
      confined_(rootPath()),
      plan_(plan),
      query_(query),
      sink_(sink) {}

FVRecordedSearch::Read FVRecordedSearch::forEachMatch(const std::string& manifest,
                                                      const std::function<void(const FVManifestEntry&)>& visit,
                                                      FVManifestHeader* header) {
    std::string problem;
    auto reader = FVManifestReader::open(manifest, &problem);
    if (!reader) {
        sink_.warn(problem);
        return Read::Damaged;
    }
    *header = reader->header();
    FVManifestEntry entry;
    while (reader->next(entry)) {
        if (sink_.stopped()) return Read::Stopped;
        if (isMatch(entry.path, entry.type)) visit(entry);
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

bool FVRecordedSearch::isMatch(std::string_view path, FVManifestEntryType type) const {
    std::string_view name = path.substr(path.rfind('/') + 1);
    return query_.matches(name) && FVSearchCandidates::isCandidate(name, kindOf(type)) &&
           FVSearchCandidates::entersEveryFolderAbove(path);
}

void FVRecordedSearch::run() {
    const std::vector<FVSearchPlan::Run>& runs = plan_.runs();
    FVManifestHeader header;
    Read read = forEachMatch(runs.front().manifest, [&](const FVManifestEntry& entry) {
        if (exists(entry.path)) sink_.report(destination_ + entry.path);
    }, &header);
    if (read == Read::Damaged) sink_.walk(rootPath(), true);
    if (read != Read::Whole) return;
    // The record lists what lies inside each source's mirror folder; the folder itself, and what
    // lies outside them all, is the disk's to tell.
    const FVMirrorLayout layout(rootPath(), header.folderPerSource, header.sources);
    std::vector<std::string> told = {destination_ + "/" + FVMirrorLayout::kChangedFolder,
                                     destination_ + "/" + FVMirrorLayout::kRemovedFolder};
    for (const std::string& source : header.sources) {
        std::string mirror = layout.mirrorRelativePath(source);
        if (mirror.empty()) break;  // the source "/" fills the destination
        told.push_back(destination_ + mirror);
    }
    if (told.size() == header.sources.size() + 2) sink_.walk(rootPath(), true, told);
    const FVDisplacedIndex index(cacheFolder_);
    for (size_t i = 0; i < runs.size() && !sink_.stopped(); ++i) {
        const std::string& stamp = runs[i].stamp;
        if (!plan_.tellsArchivesOf(i)) {
            walkArchivesOf(stamp);
            continue;
        }
        std::string problem;
        auto displaced = index.displaced(runs[i + 1].manifest, runs[i].manifest, [&] { return sink_.stopped(); }, &problem);
        if (!displaced) {
            if (sink_.stopped()) return;
            sink_.warn(problem);
            walkArchivesOf(stamp);
            continue;
        }
        for (const FVDisplacedIndex::Item& item : *displaced) {
            if (!isMatch(item.path, item.type)) continue;
            for (const char* archive : {FVMirrorLayout::kChangedFolder, FVMirrorLayout::kRemovedFolder}) {
                std::string relative = "/" + std::string(archive) + "/" + stamp + item.path;
                if (exists(relative)) sink_.report(destination_ + relative);
            }
        }
    }
}

}  // namespace ferrovane
