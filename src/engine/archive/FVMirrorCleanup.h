#pragma once
// After all sources are mirrored: destination items whose source is gone (or now excluded) are
// archived into __removed/<stamp>/ or deleted. Only a definite answer that a source is gone lets
// its mirror go.

#include "engine/archive/FVDestinationTree.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/analysis/FVRunFindings.h"
#include "engine/analysis/FVSourceExclusions.h"
#include "engine/config/FVSourceItem.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace ferrovane {

class FVMirrorCleanup {
public:
    FVMirrorCleanup(const FVRunSettings& settings, FVRunFindings& findings, const FVDestinationTree& destination,
                    FVRunStatus& status)
        : settings_(settings), findings_(findings), destination_(destination), status_(status),
          exclusions_(settings.options) {}

    // Looks at the mirror folders of every enabled source item that hold what the source lacks; returns false when the run was cancelled.
    // expectedCount (the items' stored file counts) scales the progress.
    bool run(const std::vector<FVSourceItemPtr>& backupSet, int32_t expectedCount);

    // Archive: archived even where removed items are not kept (an excluded item's backup).
    enum class Decision { Keep, ArchiveOrRemove, Archive, RemoveLeftover };

private:
    bool archives() const { return settings_.options.moveDeletedFiles; }
    // Returns false when the run was cancelled.
    bool cleanSourceRoot(const std::string& sourceRoot, bool emptySourceConfirmed);
    // One mirror folder the analysis found holding names the source lacks; false when cancelled.
    bool cleanFolder(const std::string& sourceRoot, const std::string& mirror, const std::string& folder);
    Decision decide(const std::string& sourceRoot, const std::string& sourcePath, const FVDirectoryWalker::Entry& entry);
    void removeDeletedItem(const std::string& sourceRoot, const std::string& relative, const std::string& itemPath,
                           bool archive);

    const FVRunSettings& settings_;
    FVRunFindings& findings_;
    const FVDestinationTree& destination_;
    FVRunStatus& status_;
    const FVSourceExclusions exclusions_;
    // The folded names of the source folder whose mirror is being cleaned, read once when first
    // needed: a missing item renamed only in case is found without reading the folder again.
    std::optional<std::unordered_set<std::string>> sourceFolderNames_;
    int handled_ = 0;
    int visited_ = 0;
    int32_t expectedCount_ = 0;
};

}  // namespace ferrovane
