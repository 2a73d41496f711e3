#include "engine/restore/FVRestoreRun.h"

#include "engine/run/FVRunError.h"

#include "FVVersion.h"
#include "engine/restore/FVTrash.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "fs/FVFileDescriptor.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace ferrovane {

namespace {
constexpr auto kProgressInterval = std::chrono::milliseconds(200);

// The files of a plan that now stand at their target as the version is: the count a summary
// can vouch for, whatever failed or was cancelled.
uint64_t landedFiles(const FVRestorePlan& plan) {
    uint64_t landed = 0;
    for (const auto& [from, to] : plan.pairs()) {
        const struct stat& version = from->statBuffer();
        if (S_ISDIR(version.st_mode)) continue;
        struct stat target {};
        if (FVLongPath::lstat(to->path(), &target) != 0 || (target.st_mode & S_IFMT) != (version.st_mode & S_IFMT)) continue;
        if (S_ISREG(version.st_mode) && !plan.holdsVersion(*from, to->path(), target)) continue;
        ++landed;
    }
    return landed;
}
}  // namespace

FVRestoreRun::FVRestoreRun(const std::vector<FVRestorePlan>& plans, bool replace) : plans_(plans), replace_(replace) {}

void FVRestoreRun::fail(const FVRunError& error) { tell(error.logLine(), error.kind != FVRunError::Kind::Warning); }

void FVRestoreRun::tell(const std::string& line, bool isError) {
    FVLog::currentLog().addLogLine(line);
    if (isError) errors_.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard lock(mutex_);
    if (report_) report_(line, isError);
}

FVRestoreRun::Summary FVRestoreRun::run(const std::string& destination, const Progress& progress,
                                        const Report& report, const std::atomic<bool>& interrupt) {
    report_ = report;
    FVLog& log = FVLog::currentLog();
    log.newLog();
    log.addLogLine(fmt::format("Ferrovane {}({}) starting restore from: {}", FERROVANE_VERSION,
                               FERROVANE_BUILD_NUMBER, destination));
    uint64_t total = 0, done = 0;
    for (const FVRestorePlan& plan : plans_) total += plan.pairs().size();
    Summary summary;
    for (const FVRestorePlan& plan : plans_) {
        log.addLogLine(fmt::format("Restoring {} to {}", plan.from(), plan.to()));
        for (const std::string& problem : plan.problems()) fail(FVRunError::item("restoring", 0, {}, problem));
        summary.cancelled = !runPlan(plan, destination, done, total, progress, interrupt);
        done += plan.pairs().size();
        summary.files += landedFiles(plan);
        if (summary.cancelled) break;
    }
    summary.bytes = bytes_;
    summary.replaced = replaced_;
    summary.errors = errors_;
    log.addLogLine(fmt::format("Restore {}: {} ({}), {} moved aside, {}.", summary.cancelled ? "stopped" : "finished",
                               FVNumber::counted(summary.files, "file"),
                               FVNumber::formattedDiskSizeString(static_cast<double>(summary.bytes)),
                               FVNumber::counted(summary.replaced, "replaced item"),
                               FVNumber::counted(summary.errors, "error")));
    log.closeLog();
    return summary;
}

FVRestoreRun::Summary FVRestoreRun::run(const std::string& destination, const Progress& progress,
                                        const Report& report) {
    static const std::atomic<bool> never{false};
    return run(destination, progress, report, never);
}

bool FVRestoreRun::runPlan(const FVRestorePlan& plan, const std::string& destination, uint64_t doneBefore,
                           uint64_t total, const Progress& progress, const std::atomic<bool>& interrupt) {
    conflicts_.clear();
    for (const FVRestorePlan::Conflict& conflict : plan.conflicts()) conflicts_.insert(conflict.target);
    plan_ = &plan;
    {
        std::lock_guard lock(mutex_);
        finished_ = cancelled_ = false;
    }
    FVFileCopyWorker worker;
    worker.setDelegate(this);
    worker.setDestinationRoot(plan.confinementRoot());
    // Every version is read from the destination's root down without following a link, so a
    // link planted in an archive path never makes the restore read what lies outside.
    worker.setSourceRoot(destination);
    // What the file system there cannot hold (owners and modes on exFAT) is then not tried per item.
    worker.setDestinationProfile(plan.targetProfile());
    {
        std::lock_guard lock(workerMutex_);
        worker_ = &worker;
    }
    auto interrupted = [&] {
        return interrupt.load(std::memory_order_relaxed) || cancelRequested_.load(std::memory_order_relaxed);
    };
    worker.startCopySession();
    for (const auto& [from, to] : plan.pairs()) {
        if (interrupted()) worker.cancel();
        if (worker.isCancelled()) break;
        worker.addCopyItemFromSource(from, to);
    }
    worker.endCopySession();
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, kProgressInterval, [this] { return finished_ || cancelled_; })) {
        lock.unlock();
        if (interrupted()) worker.cancel();
        if (progress) progress(doneBefore + worker.copiedFiles(), total);
        lock.lock();
    }
    bool completed = finished_ && !worker.isCancelled();
    lock.unlock();
    {
        std::lock_guard workerLock(workerMutex_);
        worker_ = nullptr;
    }
    bytes_ += worker.totalBytesCopied();
    if (progress) progress(doneBefore + worker.copiedFiles(), total);
    return completed;
}

void FVRestoreRun::cancel() {
    std::lock_guard lock(workerMutex_);
    cancelRequested_.store(true, std::memory_order_relaxed);
    if (worker_) worker_->cancel();
}

bool FVRestoreRun::copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) {
    const std::string& path = destination.path();
    struct stat st {};
    if (FVLongPath::lstat(path, &st) != 0) return true;
    if (!conflicts_.contains(path) || !replace_) {
        fail(FVRunError::item("restoring", 0, {}, fmt::format("Not replaced, it appeared during the restore: {}", path)));
        return false;
    }
    FVTrash::Outcome outcome = FVTrash::moveAside(path, std::time(nullptr));
    if (!outcome.moved) {
        fail(FVRunError::item("restoring", 0, {}, fmt::format("Not replaced, it could not be moved aside: {} ({})", path, outcome.problem)));
        return false;
    }
    replaced_.fetch_add(1, std::memory_order_relaxed);
    tell(fmt::format("Moved {} {}: {}", outcome.inTrash ? "to the trash" : "aside", path, outcome.placedAt), false);
    return true;
}

std::optional<std::string> FVRestoreRun::copyWorkerRecordedLinkTarget(const std::string& sourcePath) {
    const std::string* target = plan_ ? plan_->recordedLinkTarget(sourcePath) : nullptr;
    return target ? std::optional<std::string>(*target) : std::nullopt;
}

void FVRestoreRun::copyWorkerDidGenerateMessage(const std::string& message) {
    FVLog::currentLog().addLogLine(message);
}

void FVRestoreRun::copyWorkerDidFail(const FVRunError& error) { fail(error); }

void FVRestoreRun::copyWorkerDidFinishCopy() {
    std::lock_guard lock(mutex_);
    finished_ = true;
    ended_.notify_all();
}

void FVRestoreRun::copyWorkerDidCancel() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    ended_.notify_all();
}

}  // namespace ferrovane
