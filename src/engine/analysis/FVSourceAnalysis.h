#pragma once
// The walk of one source item: decides entry by entry what the destination lacks and hands each
// such pair on (to the copy worker, which copies while the walk goes on) at once.

#include "engine/analysis/FVChangeDecision.h"
#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/analysis/FVRunFindings.h"
#include "engine/analysis/FVSourceExclusions.h"
#include "engine/analysis/FVSourceListing.h"
#include "engine/run/FVFileSystemItem.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "manifest/FVManifestEntry.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ferrovane {

class FVDestinationNames;
class FVRunRecorder;

class FVSourceAnalysis {
public:
    // What a pair handed on needs: a copy; only its folder dates (an unchanged folder queued again
    // so that its dates are applied after a write into it changed them); only its mode and
    // owner, applied to the destination item in place; or, for the run's record, only the digest
    // of a current file's mirror.
    enum class Work { Copy, FolderDates, ModeAndOwner, Digest };
    using HandOver = std::function<void(FVFileSystemItemPtr source, FVFileSystemItemPtr destination, Work work)>;

    // recorder: the run's record (none for a dry run), told of every entry the walk leaves current.
    FVSourceAnalysis(const FVRunSettings& settings, FVRunFindings& findings, FVRunStatus& status, HandOver handOver,
                     FVRunRecorder* recorder = nullptr);

    // Adds the patterns that depend on what the source item holds, then walks it.
    void analyse(const std::string& sourcePath, int64_t estimatedFileCount);
    // The later names of files with several names, to be linked once the copies are done.
    const FVHardLinkGroups& hardLinks() const { return hardLinks_; }

private:
    void addFixedPatterns(const std::string& sourcePath);
    struct Walk;
    void walk(const std::string& sourceRoot, const std::string& targetRoot);
    // A source item that is one file.
    void walkSingleFile(const Walk& walk, const FVFileSystemItemPtr& root);
    FVSourceListing::Rules listingRules(const Walk& walk, FVDestinationNames& names) const;
    // Whether the listing's entry is an item to compare with its mirror; what is not is logged,
    // reported or recorded here.
    bool isComparable(const Walk& walk, const FVSourceListing::Entry& entry);
    // An item against its mirror: what is current is recorded, what is not is handed on.
    void compare(Walk& walk, const FVSourceListing::Entry& entry);
    bool isExcluded(const std::string& path, const std::string& sourceRoot) const;
    // xattrsIdentical: compares the attributes, or is empty when they are not compared. The entry
    // lies at relativeRoot + relative in the mirror. Logs why a backup is needed.
    FVChangeDecision::Reason decide(FVFileSystemItem& source, FVFileSystemItem& target,
                                    const std::function<bool()>& xattrsIdentical, std::string_view relativeRoot,
                                    std::string_view relative) const;
    // Whether a link's copy in the mirror points where the source link does.
    bool linkTargetsAgree(FVFileSystemItem& source, FVFileSystemItem& target, std::string_view relativeRoot,
                          std::string_view relative) const;
    // Logs and keeps a source item that could not be read: its mirror is left as it is.
    void reportUnreadableSource(const std::string& path, int error);
    void handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination, Work work = Work::Copy);
    // Records an entry whose mirror the run leaves as it is (data-wise); a file without a digest
    // to carry goes to the copy threads for its digest.
    void recordCurrent(const std::string& relative, const FVFileSystemItemPtr& source,
                       const FVFileSystemItemPtr& destination, const FVManifestAttributes* attributes = nullptr);

    const FVRunSettings& settings_;
    FVRunFindings& findings_;
    FVRunStatus& status_;
    HandOver handOver_;
    FVRunRecorder* recorder_;
    uint64_t digestsToTake_ = 0;
    const FVChangeDecision::Tolerance tolerance_;
    const FVSourceExclusions exclusions_;
    int64_t estimatedFileCount_ = 1;
    FVHardLinkGroups hardLinks_;
};

}  // namespace ferrovane
