#pragma once
// One verification's reading, in three passes that share a digest index, the reader threads and
// the findings: the mirror against the newest complete run, each archive folder against the runs
// before it, and where each version of an earlier run is now.

#include "engine/record/FVRecordIndex.h"
#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVerification.h"
#include "engine/record/FVVerificationReaders.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace ferrovane {

class FVMirrorLayout;

class FVVerificationPass {
public:
    // Everything given must outlive the pass.
    FVVerificationPass(const FVVerification::Options& options, const FVVerification::ProgressCallback& progress,
                       const FVVerification::FindingCallback& finding, const std::atomic<bool>& cancelled,
                       FVVerificationSummary& summary);

    // runs oldest first, as FVRunRecords lists them; latest is the newest complete one.
    void verifyMirror(const std::vector<FVRunRecord>& runs, size_t latest);
    void verifyArchives(const std::vector<FVRunRecord>& runs);
    void locateVersions(const std::vector<FVRunRecord>& runs, size_t chosen);
    // Waits for the readers and fills in what they read.
    void finish();

private:
    bool cancelled() const { return cancelled_.load(std::memory_order_relaxed); }
    const std::string& destination() const { return options_.destination; }
    void report(FVVerificationFinding::Kind kind, const std::string& path, std::string detail = {});
    void reportDamagedRecord(const FVRunRecord& run, const std::string& problem);
    // The mirror's check in its three steps: what the runs recorded, what the mirror holds (false
    // when cancelled), and what was recorded and not found.
    void indexRecordedMirror(const std::vector<FVRunRecord>& runs, size_t latest);
    bool walkMirror(const FVMirrorLayout& layout);
    void reportMissing(const std::vector<FVRunRecord>& runs, size_t latest, const FVMirrorLayout& layout);
    // Called by the readers with each file's digest.
    void checked(const FVVerificationReaders::Job& job, const std::optional<FVContentHash>& digest, int error);
    void plan(uint64_t bytes) { planned_.fetch_add(bytes, std::memory_order_relaxed); }
    void read(FVVerificationReaders::Job job) { readers_.submit(std::move(job)); }
    void setTask(const char* task);
    // At most ten times a second unless forced.
    void tick(bool force);

    const FVVerification::Options& options_;
    const FVVerification::ProgressCallback& progress_;
    const FVVerification::FindingCallback& finding_;
    const std::atomic<bool>& cancelled_;
    FVVerificationSummary& summary_;
    std::mutex mutex_;  // the summary's counts, the callbacks, the progress state
    const char* task_ = "Verifying";
    std::atomic<int64_t> nextTickNs_{0};
    float percent_ = 0;
    std::atomic<uint64_t> planned_{0};
    FVRecordIndex index_;
    FVVerificationReaders readers_;
};

}  // namespace ferrovane
