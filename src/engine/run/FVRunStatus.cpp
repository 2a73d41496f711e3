#include "engine/run/FVRunStatus.h"

#include "engine/run/FVLog.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ferrovane {

FVRunStatus::FVRunStatus(bool verboseLogging, std::function<void()> progressChanged)
    : verboseLogging_(verboseLogging), progressChanged_(std::move(progressChanged)) {}

void FVRunStatus::log(const std::string& line) const {
    if (!quiet_) FVLog::currentLog().addLogLine(line);
}

void FVRunStatus::planned(const std::string& line) const {
    log(line);
    if (plannedChange_) plannedChange_(line);
}

void FVRunStatus::verboseLog(const std::string& line) const {
    if (verboseLogging_) log(line);
}

void FVRunStatus::changed(FVItemChange change, const std::string& path, uint64_t bytes) {
    tally.add(change, bytes);
    if (change == FVItemChange::Copied) itemCopied_.fetch_add(1, std::memory_order_relaxed);
    if (itemChanged_) itemChanged_(change, path);
}

bool FVRunStatus::report(const FVRunError& error) {
    if (error.kind == FVRunError::Kind::Fatal) return stopOnFatalDestinationError(error.error, error.step, error.path);
    log(error.logLine());
    addError(error.listText());
    return false;
}

void FVRunStatus::addError(std::string message) {
    std::lock_guard lock(errorsMutex_);
    errorMessages_.push_back(std::move(message));
}

std::vector<std::string> FVRunStatus::errorMessages() const {
    std::lock_guard lock(errorsMutex_);
    return errorMessages_;
}

void FVRunStatus::cancel() {
    if (auto worker = currentWorker()) worker->cancel();
    log("Aborting sync...");
    cancelled_.store(true, std::memory_order_relaxed);
}

bool FVRunStatus::stopOnFatalDestinationError(int error, std::string_view action, const std::string& path) {
    if (!FVRunError::isFatal(error)) return false;
    destinationFailed(FVDestinationFailure(error, action, path));
    if (auto worker = currentWorker()) worker->cancel();
    return true;
}

void FVRunStatus::destinationFailed(const FVDestinationFailure& failure) {
    reportDestinationFailure(failure.message());
    log("Aborting sync...");
    cancelled_.store(true, std::memory_order_relaxed);
}

void FVRunStatus::reportDestinationFailure(const std::string& message) {
    if (destinationFailureReported_.exchange(true)) return;
    log(message);
    addError(message);
    std::lock_guard lock(errorsMutex_);
    destinationFailureMessage_ = message;
}

std::string FVRunStatus::destinationFailureMessage() const {
    std::lock_guard lock(errorsMutex_);
    return destinationFailureMessage_;
}

void FVRunStatus::setCurrentWorker(std::shared_ptr<FVCurrentCopy> worker) {
    std::shared_ptr<FVCurrentCopy> previous;
    {
        std::lock_guard lock(workerMutex_);
        previous = std::exchange(worker_, std::move(worker));
    }
    // The previous item's worker has finished; it goes outside the lock, joining its threads.
}

std::shared_ptr<FVCurrentCopy> FVRunStatus::currentWorker() const {
    std::lock_guard lock(workerMutex_);
    return worker_;
}

void FVRunStatus::setCopiedFilesShare(float percent) {
    copiedFilesShare_.store(percent, std::memory_order_relaxed);
    const uint64_t total = itemBytesToCopy_.load(std::memory_order_relaxed);
    if (total == 0) return setCopyProgress(percent);
    const double bytes = std::min(1.0, double(itemBytesWritten_.load(std::memory_order_relaxed)) / double(total));
    setCopyProgress((percent + static_cast<float>(bytes * 100.0)) * 0.5f);
}

void FVRunStatus::queuedForCopy(uint64_t bytes) {
    tally.addToCopy(bytes);
    itemBytesToCopy_.fetch_add(bytes, std::memory_order_relaxed);
}

void FVRunStatus::dataWritten(const std::string& sourcePath, uint64_t bytes) {
    tally.addWritten(bytes);
    itemBytesWritten_.fetch_add(bytes, std::memory_order_relaxed);
    {
        std::lock_guard lock(currentFileMutex_);
        if (currentFile_ != sourcePath) currentFile_ = sourcePath;
    }
    setCopiedFilesShare(copiedFilesShare_.load(std::memory_order_relaxed));
    reportProgress();
}

std::string FVRunStatus::currentFile() const {
    std::lock_guard lock(currentFileMutex_);
    return currentFile_;
}

void FVRunStatus::restartProgress(float analyse) {
    copyProgress_.store(0, std::memory_order_relaxed);
    copiedFilesShare_.store(0, std::memory_order_relaxed);
    itemBytesToCopy_.store(0, std::memory_order_relaxed);
    itemBytesWritten_.store(0, std::memory_order_relaxed);
    itemCopied_.store(0, std::memory_order_relaxed);
    lastReportedProgress_.store(0, std::memory_order_relaxed);
    analyseProgress_.store(analyse, std::memory_order_relaxed);
}

float FVRunStatus::progressStatus() const {
    float p = (analyseProgress_.load(std::memory_order_relaxed) + copyProgress_.load(std::memory_order_relaxed)) * 0.5f;
    return p > 100.0f ? 100.0f : p;
}

void FVRunStatus::reportProgress() {
    float p = (analyseProgress_.load(std::memory_order_relaxed) + copyProgress_.load(std::memory_order_relaxed)) * 0.5f;
    if (std::fabs(p - lastReportedProgress_.load(std::memory_order_relaxed)) > 0.1f) {
        lastReportedProgress_.store(p, std::memory_order_relaxed);
        progressChanged_();
    }
}

}  // namespace ferrovane
