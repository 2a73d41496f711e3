#pragma once
// Where one run stands, shared by its parts and read by the front ends from any thread: the log
// lines and errors it reports, its progress, its cancellation, and the copy worker of the source
// item in hand (which a cancellation or a full destination has to stop as well).

#include "engine/run/FVCurrentCopy.h"
#include "engine/run/FVDestinationFailure.h"
#include "engine/run/FVRunError.h"
#include "engine/run/FVRunTally.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVRunStatus {
public:
    // progressChanged is called (on the reporting thread) when the progress moved noticeably.
    FVRunStatus(bool verboseLogging, std::function<void()> progressChanged);

    void log(const std::string& line) const;
    // A status whose lines go nowhere (a look ahead whose run logs the same lines again); set
    // before the run's threads start.
    void setQuiet(bool quiet) { quiet_ = quiet; }
    // A change a dry run would have made: logged and passed to the listener.
    void planned(const std::string& line) const;
    void setPlannedChangeListener(std::function<void(const std::string&)> listener) { plannedChange_ = std::move(listener); }
    void verboseLog(const std::string& line) const;
    // An item the run copied, archived or deleted: counted, and passed to the listener (set
    // before the run's threads start; called on the thread that made the change).
    void changed(FVItemChange change, const std::string& path, uint64_t bytes = 0);
    void setItemListener(std::function<void(FVItemChange, const std::string&)> listener) { itemChanged_ = std::move(listener); }
    FVRunTally tally;
    // The one place an error becomes its log line and its entry in the error list; a fatal one
    // ends the run as stopOnFatalDestinationError does. Returns whether it was fatal.
    bool report(const FVRunError& error);
    // Copies published since the source item in hand began (since restartProgress).
    uint64_t copiedInItem() const { return itemCopied_.load(std::memory_order_relaxed); }
    void addError(std::string message);
    std::vector<std::string> errorMessages() const;

    // Stops the current copy worker and every later step that looks at isCancelled().
    void cancel();
    bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }
    // A read-only, full or failing destination ends the run at once, the current copy worker
    // with it, with one error instead of one per item; returns whether the error was of that
    // kind. action and path say what was being done where, for the message.
    bool stopOnFatalDestinationError(int error, std::string_view action, const std::string& path);
    // Reports the failure if none was reported yet and cancels the run; the worker that met it
    // has stopped itself.
    void destinationFailed(const FVDestinationFailure& failure);
    bool destinationHasFailed() const { return destinationFailureReported_.load(std::memory_order_relaxed); }
    // Records the line of the destination's failure (also one unmounted under the run) as the
    // run's error, once; the caller ends the run.
    void reportDestinationFailure(const std::string& message);
    // The line that ended the run for its destination, empty while it held.
    std::string destinationFailureMessage() const;

    void setCurrentWorker(std::shared_ptr<FVCurrentCopy> worker);
    std::shared_ptr<FVCurrentCopy> currentWorker() const;

    // The current step's progress is the mean of its analysis and copy shares, each 0 to 100.
    void setAnalyseProgress(float percent) { analyseProgress_.store(percent, std::memory_order_relaxed); }
    void setCopyProgress(float percent) { copyProgress_.store(percent, std::memory_order_relaxed); }
    // The copy share of a source item is the mean of its files done and its bytes written, so
    // that it moves within a large file.
    void setCopiedFilesShare(float percent);
    // A file, link or special file the analysis handed over for copying.
    void queuedForCopy(uint64_t bytes);
    // Data of a file written, before the copy is published; from the copying threads.
    void dataWritten(const std::string& sourcePath, uint64_t bytes);
    // The file whose data was written last, empty before any.
    std::string currentFile() const;
    void restartProgress(float analyse);
    void reportProgress();
    float progressStatus() const;

    // What the analysis of the current source item counted.
    std::atomic<uint64_t> updateCount{0};
    std::atomic<uint64_t> totalFilesCount{0};
    // What the whole run moved into __changed or __removed, and took away from the mirror
    // because its source was gone (archived or deleted), for its record.
    std::atomic<uint64_t> archivedCount{0};
    std::atomic<uint64_t> removedCount{0};

private:
    bool verboseLogging_;
    bool quiet_ = false;
    std::function<void()> progressChanged_;
    std::function<void(const std::string&)> plannedChange_;
    std::function<void(FVItemChange, const std::string&)> itemChanged_;
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> destinationFailureReported_{false};
    std::atomic<float> analyseProgress_{0};
    std::atomic<float> copyProgress_{0};
    std::atomic<float> lastReportedProgress_{0};
    // The source item in hand's share of copies: files done (0 to 100), bytes handed over and written.
    std::atomic<float> copiedFilesShare_{0};
    std::atomic<uint64_t> itemBytesToCopy_{0};
    std::atomic<uint64_t> itemBytesWritten_{0};
    std::atomic<uint64_t> itemCopied_{0};
    mutable std::mutex currentFileMutex_;
    std::string currentFile_;

    mutable std::mutex errorsMutex_;
    std::vector<std::string> errorMessages_;
    std::string destinationFailureMessage_;

    mutable std::mutex workerMutex_;
    std::shared_ptr<FVCurrentCopy> worker_;
};

}  // namespace ferrovane
