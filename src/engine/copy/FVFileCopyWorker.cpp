#include "engine/copy/FVFileCopyWorker.h"

#include "engine/copy/FVCopyContext.h"
#include "engine/copy/FVCopyThreadState.h"
#include "engine/copy/FVDestinationFolders.h"
#include "engine/copy/FVDirectoryMetadataFinisher.h"
#include "engine/copy/FVItemCloner.h"
#include "engine/run/FVRunError.h"
#include "fs/FVDataCopier.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <fcntl.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace ferrovane {

namespace {
constexpr const char* kClassName = "FVFileCopyWorker";
// A run of one folder's files ends at this many pairs or bytes, so that a folder of many or
// large files is still shared by the threads.
constexpr size_t kMaximumRunPairs = 64;
constexpr uint64_t kMaximumRunBytes = 1 << 20;

std::string_view folderOf(const std::string& path) {
    return std::string_view(path).substr(0, path.rfind('/'));
}
}  // namespace

// The pool of copy threads around the session's shared context.
struct FVFileCopyWorkerImpl {
    FVCopyContext context;
    std::atomic<bool> destroying{false};
    std::atomic<uint64_t> copiedFiles{0};
    std::mutex progressMutex;
    float lastReportedProgress = 0;

    // The pool lock: width, running threads and the session's end.
    std::mutex poolMutex;
    int64_t maxThreads = 2;
    int activeWorkers = 0;
    // The session's one report was made (with sessionCancelled when it was a cancel);
    // finishCopySession waits on sessionEnded for it.
    bool sessionFinished = false;
    bool sessionCancelled = false;
    std::condition_variable sessionEnded;
    std::vector<std::thread> threads;

    FVDestinationFolders folders{context};
    FVDirectoryMetadataFinisher directoryMetadata{context};

    void startThreads();
    // The next pairs in queue order: a folder's pair alone, or a run of files of one destination
    // folder, so that two threads seldom create entries in the same folder at once (each
    // creation holds the folder's lock in the kernel, and the other thread would wait on it).
    bool nextRun(std::vector<FVCopyPair>& run);
    void reportProgress();
    void workerBody();
    void workerEnded();
    void copyPair(FVCopyPair& pair, FVCopyThreadState& state);
    // The digest of a current destination file, read through the thread's buffer.
    void digestDestination(FVCopyPair& pair, FVCopyThreadState& state);
};

FVFileCopyWorker::FVFileCopyWorker(std::shared_ptr<FVCopyPairs> pairs)
    : impl_(std::make_unique<FVFileCopyWorkerImpl>()) {
    impl_->context.pairsToCopy = pairs ? std::move(pairs) : std::make_shared<FVCopyPairs>(kPendingCopyPairs);
}

FVFileCopyWorker::~FVFileCopyWorker() {
    impl_->destroying = true;
    impl_->context.stop();
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(impl_->poolMutex);
        threads.swap(impl_->threads);
    }
    for (std::thread& thread : threads) thread.join();
}

void FVFileCopyWorker::setDelegate(FVFileCopyWorkerDelegate* delegate) { impl_->context.delegate = delegate; }
void FVFileCopyWorker::setVerboseLogging(bool verbose) { impl_->context.verboseLogging = verbose; }
void FVFileCopyWorker::setDisableACLClone(bool disable) { impl_->context.disableACLClone = disable; }
void FVFileCopyWorker::setDestinationProfile(const FVDestinationProfile& profile) {
    impl_->context.destinationProfile = profile;
}
void FVFileCopyWorker::setPreallocate(bool preallocate) { impl_->context.preallocate = preallocate; }
void FVFileCopyWorker::setDestinationRoot(const std::string& root) { impl_->context.destinationRoot = root; }
void FVFileCopyWorker::setSourceRoot(const std::string& root) { impl_->context.sourceRoot = root; }

void FVFileCopyWorker::setRecordsCopies(bool records) { impl_->context.recordsCopies = records; }

void FVFileCopyWorker::setChunkHook(std::function<void(const std::string&, uint64_t)> hook) {
    impl_->context.chunkHook = std::move(hook);
}

void FVFileCopyWorker::setMaxThreads(int64_t n) {
    if (n < 1 || n > 15) {
        FVSystemLog::error(kClassName, "File worker configuration error. Resets to default number of threads.");
        n = 2;
    }
    std::lock_guard lock(impl_->poolMutex);
    impl_->maxThreads = n;
}

void FVFileCopyWorker::startCopySession() {
    impl_->context.startSession();
    impl_->startThreads();
}

void FVFileCopyWorker::addDigestItem(FVFileSystemItemPtr source, FVFileSystemItemPtr destination) {
    addPair({std::move(source), std::move(destination), false, true});
}

void FVFileCopyWorker::addCopyItemFromSource(FVFileSystemItemPtr source, FVFileSystemItemPtr destination,
                                             bool modeAndOwnerOnly) {
    addPair({std::move(source), std::move(destination), modeAndOwnerOnly, false});
}

void FVFileCopyWorker::addPair(FVCopyPair pair) {
    const FVFileSystemItemPtr& source = pair.source;
    const FVFileSystemItemPtr& destination = pair.destination;
    if (!source || !destination) {
        FVSystemLog::error(kClassName, fmt::format("AddCopy encountered NIL objects: {} {}",
                                                   source ? source->description() : "(null)",
                                                   destination ? destination->description() : "(null)"));
        return;
    }
    impl_->context.pairsToCopy->push(std::move(pair));
}

void FVFileCopyWorker::endCopySession() {
    impl_->context.pairsToCopy->close();
    bool reportNow;
    {
        // Without a thread (none could start) the session ends here.
        std::lock_guard lock(impl_->poolMutex);
        reportNow = impl_->activeWorkers == 0 && !impl_->sessionFinished;
        if (reportNow) {
            impl_->sessionFinished = true;
            impl_->sessionCancelled = impl_->context.isCancelled();
            impl_->sessionEnded.notify_all();
        }
    }
    if (!reportNow || !impl_->context.delegate) return;
    if (impl_->sessionCancelled) impl_->context.delegate->copyWorkerDidCancel();
    else impl_->context.delegate->copyWorkerDidFinishCopy();
}

bool FVFileCopyWorker::finishCopySession() {
    endCopySession();
    std::unique_lock lock(impl_->poolMutex);
    impl_->sessionEnded.wait(lock, [this] { return impl_->sessionFinished; });
    return !impl_->sessionCancelled;
}

void FVFileCopyWorker::cancel() {
    impl_->context.stop();
    FVTestHook::reach("copy-cancelled");
}

bool FVFileCopyWorker::isCancelled() const { return impl_->context.isCancelled(); }
uint64_t FVFileCopyWorker::requestedFiles() const { return impl_->context.pairsToCopy->accepted(); }
uint64_t FVFileCopyWorker::copiedFiles() const { return impl_->copiedFiles.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::totalBytesCopied() const { return impl_->context.totalBytesCopied.load(std::memory_order_relaxed); }

// Called once, at the session's start: the threads wait for pairs until the queue is closed and
// drained, or the session is context.cancelled; the last one to end reports the session's end.
void FVFileCopyWorkerImpl::startThreads() {
    std::lock_guard lock(poolMutex);
    for (int64_t i = 0; i < maxThreads; ++i) {
        try {
            threads.emplace_back([this] { workerBody(); });
            ++activeWorkers;
        } catch (const std::system_error& error) {
            FVSystemLog::error(kClassName, fmt::format("Could not start a copy thread: {}", error.what()));
            break;
        }
    }
    // Nothing would take the pairs: the session is cancelled rather than reported as done.
    if (activeWorkers == 0) context.stop();
}

bool FVFileCopyWorkerImpl::nextRun(std::vector<FVCopyPair>& run) {
    uint64_t bytes = 0;
    const bool taken = context.pairsToCopy->popRun(run, [&](const std::vector<FVCopyPair>& taken, const FVCopyPair& next) {
        if (taken.empty()) {
            // Under the queue lock: no later pair is taken before the folder counts as in flight.
            if (!next.source->isFile()) folders.markInFlight(next.destination->path());
            bytes = next.source->fileSize();
            return true;
        }
        if (!taken.front().source->isFile() || taken.size() >= kMaximumRunPairs || bytes >= kMaximumRunBytes ||
            !next.source->isFile() || folderOf(next.destination->path()) != folderOf(taken.front().destination->path()))
            return false;
        bytes += next.source->fileSize();
        return true;
    });
    reportProgress();
    return taken;
}

void FVFileCopyWorkerImpl::reportProgress() {
    const uint64_t requested = context.pairsToCopy->accepted();
    if ((!context.pairsToCopy->isClosed() && requested < 100) || requested == 0) return;
    auto progress = static_cast<float>(static_cast<double>(copiedFiles.load(std::memory_order_relaxed)) /
                                       static_cast<double>(requested));
    std::lock_guard lock(progressMutex);
    if (std::fabs(progress - lastReportedProgress) <= 0.05f) return;
    lastReportedProgress = progress;
    context.progressDidChange(progress);
}

void FVFileCopyWorkerImpl::workerBody() {
    {
        FVCopyThreadState state;
        state.buffer.reset(new char[kCopyBufferSize]);
        std::vector<FVCopyPair> run;
        for (;;) {
            run.clear();
            // Waits for pairs; none once the session ended and every pair was taken.
            if (!nextRun(run)) break;
            state.prefetch.start(run,
                                 [&](const std::string& path) { return context.openSource(path, kSourceFileFlags, &state); });
            size_t done = 0;
            for (; done < run.size() && !context.isCancelled(); ++done) {
                copiedFiles.fetch_add(1, std::memory_order_relaxed);
                copyPair(run[done], state);
            }
            state.prefetch.clear();
            if (done == run.size()) continue;
            for (; done < run.size(); ++done)
                if (!run[done].source->isFile()) folders.settle(run[done].destination->path());
            break;
        }
    }
    workerEnded();
}

void FVFileCopyWorkerImpl::workerEnded() {
    enum class Outcome { None, Cancelled, Finished } outcome = Outcome::None;
    {
        std::lock_guard lock(poolMutex);
        if (--activeWorkers > 0) return;
        if (destroying) {
            outcome = Outcome::None;
        } else if (context.isCancelled()) {
            outcome = Outcome::Cancelled;
        } else {
            // The queue is closed and drained: every copy is in, the folders' metadata follows.
            directoryMetadata.finish();
            // A destination that failed in the metadata step cancelled the session.
            outcome = context.isCancelled() ? Outcome::Cancelled : Outcome::Finished;
        }
        if (outcome != Outcome::None) {
            sessionFinished = true;
            sessionCancelled = outcome == Outcome::Cancelled;
            sessionEnded.notify_all();
        }
    }
    if (outcome == Outcome::Cancelled) context.delegate->copyWorkerDidCancel();
    else if (outcome == Outcome::Finished) context.delegate->copyWorkerDidFinishCopy();
}

void FVFileCopyWorkerImpl::copyPair(FVCopyPair& pair, FVCopyThreadState& state) {
    FVFileSystemItem& source = *pair.source;
    FVFileSystemItem& destination = *pair.destination;
    if (pair.digestOnly) {
        digestDestination(pair, state);
    } else if (source.isFile() && pair.modeAndOwnerOnly) {
        // Nothing is overwritten: the data stays, so there is no old version to archive.
        FVItemCloner(context, folders, state).updateModeAndOwner(source, destination.path());
    } else if (source.isFile()) {
        if (!context.mayOverwrite(destination)) return;
        folders.ensureFolder(state, FVText::deletingLastPathComponent(destination.path()));
        FVItemCloner(context, folders, state).clone(source, destination.path());
        // Between two files this thread holds no file of the destination open for writing.
        FVTestHook::reach("between-files", destination.path());
    } else {
        directoryMetadata.add(source.path(), destination.path());
        folders.ensureDirectoryItem(state, destination);
        folders.settle(destination.path());
        // A folder that could not be made is reported where it failed; only the disk's own
        // failure stops the session here.
        if (!state.lastDirectoryFd.valid()) {
            FVRunError failure = FVRunError::atDestination("creating", state.lastDirectoryError, destination.path(), {});
            if (failure.kind == FVRunError::Kind::Fatal) context.stopOnDestinationFailure(failure);
        }
    }
}

void FVFileCopyWorkerImpl::digestDestination(FVCopyPair& pair, FVCopyThreadState& state) {
    const std::string& path = pair.destination->path();
    std::optional<FVContentHash> hash;
    int error = 0;
    if (!folders.ensureFolder(state, FVText::deletingLastPathComponent(path)) || !state.lastDirectoryFd.valid()) {
        error = state.lastDirectoryError;
    } else {
        const std::string name = FVText::lastPathComponent(path);
        FVFd file(FVOpenFiles::openat(state.lastDirectoryFd.get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        struct stat st {};
        if (file.valid() && FVFileStatus::fstat(file.get(), &st) == 0 && S_ISREG(st.st_mode))
            hash = FVContentHasher::ofDescriptor(file.get(), state.buffer.get(), kCopyBufferSize);
        else if (file.valid())
            errno = EINVAL;  // no longer the regular file the walk found
        if (!hash) error = errno;
    }
    if (!hash)
        context.report(FVRunError::warning("recording", error, path,
                                           fmt::format("Could not read {} to record the digest of its bytes ({}).",
                                                       path, std::strerror(error)))
                           .loggedOnly());
    context.recordItem({pair.source->path(), path, pair.source->statBuffer(), {}, hash, false, false});
}

}  // namespace ferrovane
