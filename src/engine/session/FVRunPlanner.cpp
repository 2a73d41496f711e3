#include "engine/session/FVRunPlanner.h"

#include "engine/analysis/FVRunFindings.h"
#include "engine/analysis/FVSourceAnalysis.h"
#include "fs/FVFileStatus.h"

namespace ferrovane {

namespace {

constexpr uint64_t kBlock = 4096;
constexpr int64_t kUnknownFileCount = 2000000;

}  // namespace

FVRunPlanner::FVRunPlanner(const FVRunSettings& settings, std::vector<std::string> excludedFiles, FVRunStatus& status)
    : settings_(settings), excludedFiles_(std::move(excludedFiles)), status_(status) {
    settings_.dryRun = true;
    settings_.reportPlannedChange = nullptr;
    // A destination inside a source is no part of what the run writes.
    settings_.identifyDestination();
}

uint64_t FVRunPlanner::bytesOfCopy(const struct stat& st) {
    const uint64_t size = !S_ISDIR(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return (size + kBlock - 1) / kBlock * kBlock + (size == 0 ? kBlock : 0);
}

uint64_t FVRunPlanner::bytesToWrite(const std::vector<std::string>& sources) {
    uint64_t bytes = 0;
    FVRunFindings findings;
    findings.excludedFiles = excludedFiles_;
    for (const std::string& source : sources) {
        if (status_.isCancelled()) break;
        if (!FVFileStatus::pathExists(source)) continue;
        FVSourceAnalysis analysis(
            settings_, findings, status_,
            [&bytes](FVFileSystemItemPtr item, FVFileSystemItemPtr, FVSourceAnalysis::Work work) {
                if (work == FVSourceAnalysis::Work::Copy) bytes += bytesOfCopy(item->statBuffer());
            });
        analysis.analyse(source, kUnknownFileCount);
    }
    return bytes;
}

}  // namespace ferrovane
