#pragma once
// One backup run towards one destination, stage by stage, read top to bottom in run():
//   1. the last run's record is read, so that unchanged files keep their digests;
//   2. every enabled source item in list order (backUpSource):
//      a. the walk and the analysis (FVSourceAnalysis, on the run's thread) push what changed
//         onto "pairs to copy";
//      b. meanwhile the copy threads (FVFileCopyWorker) take from "pairs to copy", archiving each
//         version they replace; the walk's end closes the queue, and once the last copy is in,
//         the folders' metadata is applied;
//      c. the later names of files with several names are linked to their first name's copy;
//         those that cannot be links go through "later names to copy", closed at once; what the
//         destination could not keep (links, attributes) is noted for the run's warnings;
//   3. the cleanup archives or removes what vanished from the sources (FVMirrorCleanup);
//   4. the purge deletes archives past their age (FVArchivePurge);
//   5. the flush puts the run on the destination's disk, then the run's record is closed;
//   6. the thinning lets go of the runs the retention policy no longer keeps (FVRunThinning).
// A cancel (the user, a failing or vanished destination) closes the queues: the walk's pushes are
// refused, the copy threads stop after the pair in hand, and the run ends with the flush and its
// record closed as stopped.
// Around it, FVBackupSession: before, the destination's probe, the room check and the
// before-hook; after, the after-hook, the summary and "Sync finished".

#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/analysis/FVRunFindings.h"
#include "engine/analysis/FVSourceAnalysis.h"
#include "engine/archive/FVChangedFileArchive.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/archive/FVHardLinkWriter.h"
#include "engine/config/FVSourceItem.h"
#include "engine/copy/FVCopyPair.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "engine/session/FVUnkeptMetadata.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
        // What the destination could not keep, said once per run.
        FVUnkeptMetadata& unkeptMetadata;
        FVRunRecorder* recorder;  // none in a dry run or without a record
        // A worker set up for a source item, taking its pairs from the queue given; not called in
        // a dry run.
        std::function<std::shared_ptr<FVFileCopyWorker>(const std::string& sourcePath, std::shared_ptr<FVCopyPairs>)>
            makeWorker;
    };

    // Told between the stages, on the run's thread; index is the source item's place in sources.
    class Listener {
    public:
        virtual ~Listener() = default;
        virtual void sourceWillStart(const FVSourceItem& item, size_t index) = 0;
        // unreadable: the source item could not be read at all (gone, or its folder refused), and
        // its mirror was kept as it was.
        virtual void sourceDidFinish(FVSourceItem& item, size_t index, bool unreadable) = 0;
        virtual void cleanupWillStart() = 0;
        virtual void purgeWillStart() = 0;
    };

    FVBackupPipeline(Run run, Listener& listener);

    // The whole run: sources are the items backed up, backupSet the whole list, whose excluded and
    // disabled items the cleanup heeds too. False when the run was cancelled.
    bool run(const std::vector<FVSourceItemPtr>& sources, const std::vector<FVSourceItemPtr>& backupSet);

private:
    enum class SourceOutcome { Done, Unreadable, Cancelled };
    SourceOutcome backUpSource(const std::string& sourcePath, std::optional<int64_t> fileCountEstimation);
    // Ends a cancelled run: what was written goes to the disk, and the record says it stopped.
    bool stop();
    void flush();

    // A pair the walk hands on; a dry run reports it instead.
    void handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination, FVSourceAnalysis::Work work);
    void reportWouldCopy(FVFileSystemItem& source, FVFileSystemItem& destination);
    // Links the later names of files with several names; false when the run was cancelled.
    bool linkLaterNames(const std::string& sourcePath, const FVHardLinkGroups& groups);
    void recordLaterNames(const FVHardLinkGroups& groups, const std::vector<FVHardLinkWriter::CopyPair>& copies);
    void keepUnavailableMirror(const std::string& sourcePath);
    // A clone of the whole system: the destination root takes the root folder's attributes.
    void takeRootAttributes();

    Run run_;
    Listener& listener_;
    // The source item's queue between the walk and the copy threads; bounded, so that a walk far
    // ahead of the copies waits instead of filling memory.
    std::shared_ptr<FVCopyPairs> pairsToCopy_;
};

}  // namespace ferrovane
