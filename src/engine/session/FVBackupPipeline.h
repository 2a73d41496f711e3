#pragma once
// One source item through the stages of a backup run, read top to bottom in run():
//   1. the walk and the analysis (FVSourceAnalysis, on the caller's thread) push what changed
//      onto "pairs to copy";
//   2. meanwhile the copy threads (FVFileCopyWorker) take from "pairs to copy", archiving each
//      version they replace; the walk's end closes the queue, and once the last copy is in the
//      folders' metadata is applied;
//   3. the later names of files with several names are linked to their first name's copy; those
//      that cannot be links go through "later names to copy", closed at once; what the destination
//      could not keep (links, attributes) is noted for the run's warnings.
// A cancel (the user, a failing or vanished destination) closes the queues: the walk's pushes are
// refused and the copy threads stop after the pair in hand.
// The run around it is FVBackupSession::run: every source item, then the cleanup
// (FVMirrorCleanup), the purge (FVArchivePurge), the flush, the record and the thinning.

#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/analysis/FVRunFindings.h"
#include "engine/analysis/FVSourceAnalysis.h"
#include "engine/archive/FVChangedFileArchive.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/archive/FVHardLinkWriter.h"
#include "engine/copy/FVCopyPair.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "engine/session/FVUnkeptMetadata.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ferrovane {

class FVRunRecorder;

class FVBackupPipeline {
public:
    // What the stages share with the rest of the run.
    struct Run {
        const FVRunSettings& settings;
        FVRunFindings& findings;
        FVRunStatus& status;
        FVDestinationTree& destination;
        FVChangedFileArchive& changedFileArchive;
        // What the destination could not keep of this source item, said once per run.
        FVUnkeptMetadata& unkeptMetadata;
        FVRunRecorder* recorder;  // none in a dry run or without a record
        // A worker set up for this source item, taking its pairs from the queue given; not called
        // in a dry run.
        std::function<std::shared_ptr<FVFileCopyWorker>(std::shared_ptr<FVCopyPairs>)> makeWorker;
    };

    FVBackupPipeline(Run run, std::string sourcePath);

    // False when the run was cancelled.
    bool run(std::optional<int64_t> fileCountEstimation);
    // Whether the source item could not be read at all (gone, or its folder refused): its mirror
    // was kept as it was.
    bool sourceUnreadable() const { return sourceUnreadable_; }

private:
    // A pair the walk hands on; a dry run reports it instead.
    void handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination, FVSourceAnalysis::Work work);
    void reportWouldCopy(FVFileSystemItem& source, FVFileSystemItem& destination);
    // Links the later names of files with several names; false when the run was cancelled.
    bool linkLaterNames(const FVHardLinkGroups& groups);
    void recordLaterNames(const FVHardLinkGroups& groups, const std::vector<FVHardLinkWriter::CopyPair>& copies);
    void keepUnavailableMirror();
    // A clone of the whole system: the destination root takes the root folder's attributes.
    void takeRootAttributes();

    Run run_;
    const std::string sourcePath_;
    // Bounded: a walk far ahead of the copies waits instead of filling memory.
    std::shared_ptr<FVCopyPairs> pairsToCopy_ = std::make_shared<FVCopyPairs>(kPendingCopyPairs);
    std::shared_ptr<FVCopyPairs> laterNamesToCopy_ = std::make_shared<FVCopyPairs>(kPendingCopyPairs);
    bool sourceUnreadable_ = false;
};

}  // namespace ferrovane
