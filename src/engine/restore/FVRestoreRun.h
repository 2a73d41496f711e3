#pragma once
// Copies planned items back out of a destination through the copy worker, one item after the
// other, each confined below its own target folder. An existing item is only ever replaced when
// the plan found it and the user chose to replace: it then goes to the trash first.

#include "engine/copy/FVFileCopyWorker.h"
#include "engine/restore/FVRestorePlan.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

namespace ferrovane {

struct FVRunError;

class FVRestoreRun final : public FVFileCopyWorkerDelegate {
public:
    struct Summary {
        uint64_t files = 0;
        uint64_t bytes = 0;
        uint64_t replaced = 0;  // existing items moved aside first
        uint64_t errors = 0;
        bool cancelled = false;
    };
    // Called on the thread that runs, with pairs handled so far and in all.
    using Progress = std::function<void(uint64_t done, uint64_t total)>;
    // Messages for the user (replaced items, errors), on any thread, one at a time.
    using Report = std::function<void(const std::string& line, bool isError)>;

    FVRestoreRun(const std::vector<FVRestorePlan>& plans, bool replace);

    // Runs every plan; interrupt is polled and cancels the copy when it becomes true. Writes a
    // section in the run log.
    Summary run(const std::string& destination, const Progress& progress, const Report& report,
                const std::atomic<bool>& interrupt);
    // Runs every plan, cancelled only by cancel().
    Summary run(const std::string& destination, const Progress& progress, const Report& report);
    // Cancels at once, from any thread (a signal's): the copy under way stops between chunks and
    // the run ends as cancelled, as it does when interrupt becomes true.
    void cancel();

    bool respondsToWillOverwriteDestination() const override { return true; }
    bool copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) override;
    std::optional<std::string> copyWorkerRecordedLinkTarget(const std::string& sourcePath) override;
    void copyWorkerDidGenerateMessage(const std::string& message) override;
    void copyWorkerDidFail(const FVRunError& error) override;
    void copyWorkerDidFinishCopy() override;
    void copyWorkerDidCancel() override;

private:
    bool runPlan(const FVRestorePlan& plan, const std::string& destination, uint64_t doneBefore, uint64_t total,
                 const Progress& progress, const std::atomic<bool>& interrupt);
    void tell(const std::string& line, bool isError);
    // An error or warning: its log line, counted as an error unless a warning.
    void fail(const FVRunError& error);

    const std::vector<FVRestorePlan>& plans_;
    bool replace_;
    Report report_;
    std::unordered_set<std::string> conflicts_;  // targets of the item being copied
    const FVRestorePlan* plan_ = nullptr;        // the item being copied; set before its copies start
    uint64_t bytes_ = 0;
    std::atomic<uint64_t> replaced_{0};
    std::atomic<uint64_t> errors_{0};
    std::mutex mutex_;
    std::condition_variable ended_;
    bool finished_ = false, cancelled_ = false;
    std::atomic<bool> cancelRequested_{false};
    // The worker of the item being copied, for cancel().
    std::mutex workerMutex_;
    FVFileCopyWorker* worker_ = nullptr;
};

}  // namespace ferrovane
