#include "search/FVDirectorySearchBlockOperation.h"

#include "engine/config/FVMirrorLayout.h"
#include "search/FVDisplacedIndex.h"
#include "search/FVSearchCandidates.h"
#include "search/FVSearchPlan.h"

#include <fts.h>

#include <algorithm>
#include <string_view>

namespace ferrovane {

namespace {

bool isArchiveFolder(std::string_view name) {
    return name == FVMirrorLayout::kChangedFolder || name == FVMirrorLayout::kRemovedFolder;
}

// The prefix of every hit: the folder as named, without a trailing slash (as the walk joins names).
std::string hitPrefix(const std::string& folder) {
    return folder.ends_with('/') ? folder.substr(0, folder.size() - 1) : folder;
}

}  // namespace

FVDirectorySearchBlockOperation::FVDirectorySearchBlockOperation(
    FVMainQueue& mainQueue, std::string searchFolderPath, std::string searchString,
    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate, size_t matchLimit)
    : mainQueue_(mainQueue),
      searchFolderPath_(std::move(searchFolderPath)),
      query_(searchString),
      delegate_(std::move(delegate)),
      matchLimit_(matchLimit) {}

void FVDirectorySearchBlockOperation::main() {
    if (!isCancelled()) search();
    // Handing the delegate over means this worker never drops the last reference to it.
    if (delegate_) mainQueue_.post([delegate = std::move(delegate_)] { delegate->didFinish(); });
}

void FVDirectorySearchBlockOperation::search() {
    FVSearchPlan plan = FVSearchPlan::of(searchFolderPath_);
    for (const std::string& problem : plan.problems()) warn(problem + "; the search walks what it would tell");
    if (!plan.listsMirror()) {
        walk(searchFolderPath_, true, {});
        return;
    }
    deduplicates_ = true;
    FVRecordedSearch(hitPrefix(searchFolderPath_), plan, query_, *this, FVDisplacedIndex::userCacheFolder()).run();
}

bool FVDirectorySearchBlockOperation::stopped() const { return isCancelled() || matchCount_ >= matchLimit_; }

void FVDirectorySearchBlockOperation::report(const std::string& path) {
    if (stopped() || (deduplicates_ && !reported_.insert(path).second)) return;
    ++matchCount_;
    if (delegate_)
        mainQueue_.post([delegate = delegate_, path, cancelled = cancelled_] {
            if (!cancelled->load(std::memory_order_relaxed)) delegate->didFindMatch(path);
        });
}

void FVDirectorySearchBlockOperation::warn(const std::string& message) {
    if (delegate_)
        mainQueue_.post([delegate = delegate_, message, cancelled = cancelled_] {
            if (!cancelled->load(std::memory_order_relaxed)) delegate->didWarn(message);
        });
}

void FVDirectorySearchBlockOperation::walk(const std::string& folder, bool wholeDestination,
                                           const std::vector<std::string>& skipped) {
    using FVSearchCandidates::Kind;
    if (stopped()) return;
    std::string root = folder;
    char* roots[] = {root.data(), nullptr};
    // Links inside are not followed, but a destination named through a link is searched.
    FTS* tree = fts_open(roots, FTS_PHYSICAL | (wholeDestination ? FTS_COMFOLLOW : 0) | FTS_NOCHDIR | FTS_XDEV, nullptr);
    if (!tree) return;
    while (!stopped()) {
        FTSENT* entry = fts_read(tree);
        if (!entry) break;  // done, or the tree vanished under the walk
        // The searched folder is what is searched, not a candidate, whatever its name.
        if (entry->fts_level == FTS_ROOTLEVEL) continue;
        std::string_view name(entry->fts_name, entry->fts_namelen);
        bool skippedFolder = entry->fts_info == FTS_D &&
                             std::find(skipped.begin(), skipped.end(),
                                       std::string_view(entry->fts_path, entry->fts_pathlen)) != skipped.end();
        if (wholeDestination && entry->fts_level == 1 && (name == FVMirrorLayout::kRunsFolder || isArchiveFolder(name))) {
            if (name == FVMirrorLayout::kRunsFolder || skippedFolder) fts_set(tree, entry, FTS_SKIP);
            continue;
        }
        if (wholeDestination && entry->fts_level == 2 && isArchiveFolder(entry->fts_parent->fts_name)) continue;
        switch (entry->fts_info) {
        case FTS_D:
            if (!FVSearchCandidates::isCandidate(name, Kind::Folder)) {
                fts_set(tree, entry, FTS_SKIP);
                continue;
            }
            if (!FVSearchCandidates::entersFolder(name) || skippedFolder) fts_set(tree, entry, FTS_SKIP);
            break;
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            if (!FVSearchCandidates::isCandidate(name, Kind::FileOrLink)) continue;
            break;
        default:  // directories on the way out, unreadable folders, other kinds, errors
            continue;
        }
        if (query_.matches(name)) report(std::string(entry->fts_path, entry->fts_pathlen));
    }
    fts_close(tree);
}

}  // namespace ferrovane
