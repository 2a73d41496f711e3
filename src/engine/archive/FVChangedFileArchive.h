#pragma once
// Before the copy overwrites a destination file, its old version moves to
// __changed/<stamp>/ at the same relative path; a folder that something else replaces goes the
// way of a removed folder, to __removed/<stamp>/. Called on the copy worker's threads.

#include "engine/archive/FVDestinationTree.h"
#include "engine/config/FVMirrorLayout.h"
#include "engine/run/FVFileSystemItem.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <optional>
#include <string>

namespace ferrovane {

class FVChangedFileArchive {
public:
    FVChangedFileArchive(const FVRunSettings& settings, const FVDestinationTree& destination, FVRunStatus& status)
        : settings_(settings), destination_(destination), status_(status) {}

    // Where the old version of a destination item goes in this run's archive of that kind;
    // nothing for a path outside the destination.
    std::optional<std::string> archivePath(const std::string& destinationPath, FVArchiveKind kind = FVArchiveKind::Changed) const;
    // False keeps the destination as it is, and the file is then not copied in this run.
    bool archiveBeforeOverwrite(FVFileSystemItem& destination);

private:
    const FVRunSettings& settings_;
    const FVDestinationTree& destination_;
    FVRunStatus& status_;
};

}  // namespace ferrovane
