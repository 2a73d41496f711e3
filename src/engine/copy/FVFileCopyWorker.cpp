#include "engine/copy/FVFileCopyWorker.h"

#include "engine/copy/FVFileCopyWorkerImpl.h"
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
#include <string_view>
#include <system_error>

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

FVFileCopyWorker::FVFileCopyWorker(std::shared_ptr<FVCopyPairs> pairs)
    : impl_(std::make_unique<FVFileCopyWorkerImpl>()) {
    impl_->pairsToCopy = pairs ? std::move(pairs) : std::make_shared<FVCopyPairs>(kPendingCopyPairs);
}

FVFileCopyWorker::~FVFileCopyWorker() {
    impl_->destroying = true;
    impl_->stop();
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(impl_->poolMutex);
        threads.swap(impl_->threads);
    }
    for (std::thread& thread : threads) thread.join();
}

void FVFileCopyWorker::setDelegate(FVFileCopyWorkerDelegate* delegate) { impl_->delegate = delegate; }
void FVFileCopyWorker::setVerboseLogging(bool verbose) { impl_->verboseLogging = verbose; }
void FVFileCopyWorker::setDisableACLClone(bool disable) { impl_->disableACLClone = disable; }
void FVFileCopyWorker::setDestinationProfile(const FVDestinationProfile& profile) {
    impl_->destinationProfile = profile;
}
void FVFileCopyWorker::setPreallocate(bool preallocate) { impl_->preallocate = preallocate; }
void FVFileCopyWorker::setDestinationRoot(const std::string& root) { impl_->destinationRoot = root; }
void FVFileCopyWorker::setSourceRoot(const std::string& root) { impl_->sourceRoot = root; }

void FVFileCopyWorker::setRecordsCopies(bool records) { impl_->recordsCopies = records; }

void FVFileCopyWorker::setChunkHook(std::function<void(const std::string&, uint64_t)> hook) {
    impl_->chunkHook = std::move(hook);
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
    if (!impl_->destination) impl_->destination = std::make_unique<FVConfinedDirectory>(impl_->destinationRoot);
    if (!impl_->sourceTree && !impl_->sourceRoot.empty())
        impl_->sourceTree = std::make_unique<FVConfinedDirectory>(impl_->sourceRoot);
    FVFileCopyWorkerDelegate* delegate = impl_->delegate;
    impl_->delegateSupportsWillOverwriteDestination = delegate && delegate->respondsToWillOverwriteDestination();
    impl_->delegateSupportsProgressDidChange = delegate && delegate->respondsToProgressDidChange();
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
    impl_->pairsToCopy->push(std::move(pair));
}

void FVFileCopyWorker::endCopySession() {
    impl_->pairsToCopy->close();
    bool reportNow;
    {
        // Without a thread (none could start) the session ends here.
        std::lock_guard lock(impl_->poolMutex);
        reportNow = impl_->activeWorkers == 0 && !impl_->sessionFinished;
        if (reportNow) {
            impl_->sessionFinished = true;
            impl_->sessionCancelled = impl_->cancelled.load(std::memory_order_relaxed);
            impl_->sessionEnded.notify_all();
        }
    }
    if (!reportNow || !impl_->delegate) return;
    if (impl_->sessionCancelled) impl_->delegate->copyWorkerDidCancel();
    else impl_->delegate->copyWorkerDidFinishCopy();
}

bool FVFileCopyWorker::finishCopySession() {
    endCopySession();
    std::unique_lock lock(impl_->poolMutex);
    impl_->sessionEnded.wait(lock, [this] { return impl_->sessionFinished; });
    return !impl_->sessionCancelled;
}

void FVFileCopyWorker::cancel() {
    impl_->stop();
    FVTestHook::reach("copy-cancelled");
}

bool FVFileCopyWorker::isCancelled() const { return impl_->cancelled.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::requestedFiles() const { return impl_->pairsToCopy->accepted(); }
uint64_t FVFileCopyWorker::copiedFiles() const { return impl_->copiedFiles.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::totalBytesCopied() const { return impl_->totalBytesCopied.load(std::memory_order_relaxed); }

void FVFileCopyWorkerImpl::stop() {
    cancelled.store(true, std::memory_order_relaxed);
    pairsToCopy->close();
}

// Called once, at the session's start: the threads wait for pairs until the queue is closed and
// drained, or the session is cancelled; the last one to end reports the session's end.
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
    if (activeWorkers == 0) stop();
}

bool FVFileCopyWorkerImpl::nextRun(std::vector<FVCopyPair>& run) {
    uint64_t bytes = 0;
    const bool taken = pairsToCopy->popRun(run, [&](const std::vector<FVCopyPair>& taken, const FVCopyPair& next) {
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
    const uint64_t requested = pairsToCopy->accepted();
    if ((!pairsToCopy->isClosed() && requested < 100) || requested == 0) return;
    auto progress = static_cast<float>(static_cast<double>(copiedFiles.load(std::memory_order_relaxed)) /
                                       static_cast<double>(requested));
    if (!delegateSupportsProgressDidChange) return;
    std::lock_guard lock(progressMutex);
    if (std::fabs(progress - lastReportedProgress) <= 0.05f) return;
    lastReportedProgress = progress;
    delegate->copyWorkerProgressDidChange(progress);
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
            state.prefetch.start(run, [&](const std::string& path) { return openSource(path, kSourceFileFlags, &state); });
            size_t done = 0;
            for (; done < run.size() && !cancelled.load(std::memory_order_relaxed); ++done) {
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
        } else if (cancelled.load(std::memory_order_relaxed)) {
            outcome = Outcome::Cancelled;
        } else {
            // The queue is closed and drained: every copy is in, the folders' metadata follows.
            directoryMetadata.finish();
            // A destination that failed in the metadata step cancelled the session.
            outcome = cancelled.load(std::memory_order_relaxed) ? Outcome::Cancelled : Outcome::Finished;
        }
        if (outcome != Outcome::None) {
            sessionFinished = true;
            sessionCancelled = outcome == Outcome::Cancelled;
            sessionEnded.notify_all();
        }
    }
    if (outcome == Outcome::Cancelled) delegate->copyWorkerDidCancel();
    else if (outcome == Outcome::Finished) delegate->copyWorkerDidFinishCopy();
}

void FVFileCopyWorkerImpl::published(const std::string& sourcePath, uint64_t bytes) {
    totalBytesCopied.fetch_add(bytes, std::memory_order_relaxed);
    if (delegate) delegate->copyWorkerDidPublishItem(sourcePath, bytes);
}

void FVFileCopyWorkerImpl::sendMessage(const std::string& message) {
    if (delegate) delegate->copyWorkerDidGenerateMessage(message);
}

void FVFileCopyWorkerImpl::report(FVRunError error) {
    if (error.kind == FVRunError::Kind::Fatal) return stopOnDestinationFailure(error);
    // The run's error list shows the worker's errors with their level, as the log does.
    if (delegate) delegate->copyWorkerDidFail(std::move(error).retried().listedWithLevel());
}

void FVFileCopyWorkerImpl::stopOnDestinationFailure(const FVRunError& failure) {
    stop();
    if (!destinationFailureReported.exchange(true) && delegate) delegate->copyWorkerDidFail(failure);
}

bool FVFileCopyWorkerImpl::mayOverwrite(FVFileSystemItem& destination) {
    return !(delegateSupportsWillOverwriteDestination && delegate) ||
           delegate->copyWorkerWillOverwriteDestination(destination);
}

void FVFileCopyWorkerImpl::copyPair(FVCopyPair& pair, FVCopyThreadState& state) {
    FVFileSystemItem& source = *pair.source;
    FVFileSystemItem& destination = *pair.destination;
    if (pair.digestOnly) {
        digestDestination(pair, state);
    } else if (source.isFile() && pair.modeAndOwnerOnly) {
        // Nothing is overwritten: the data stays, so there is no old version to archive.
        FVItemCloner(*this, state).updateModeAndOwner(source, destination.path());
    } else if (source.isFile()) {
        if (!mayOverwrite(destination)) return;
        folders.ensureFolder(state, FVText::deletingLastPathComponent(destination.path()));
        FVItemCloner(*this, state).clone(source, destination.path());
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
            if (failure.kind == FVRunError::Kind::Fatal) stopOnDestinationFailure(failure);
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
        report(FVRunError::warning("recording", error, path,
                                   fmt::format("Could not read {} to record the digest of its bytes ({}).", path,
                                               std::strerror(error)))
                   .loggedOnly());
    recordItem({pair.source->path(), path, pair.source->statBuffer(), {}, hash, false, false});
}

void FVFileCopyWorkerImpl::recordItem(const FVCopyRecord& record) {
    if (recordsCopies && delegate) delegate->copyWorkerDidRecordItem(record);
}

int FVFileCopyWorkerImpl::openSource(const std::string& path, int flags, FVCopyThreadState* state) const {
    std::optional<std::string> relative = sourceTree ? sourceTree->relativePath(path) : std::nullopt;
    // The root itself, a source that is a single file, or a worker without a source root.
    if (!relative || relative->empty() || sourceTree->openError() != 0) return FVLongPath::open(path, flags);
    const size_t slash = relative->rfind('/');
    std::string folderPath = slash == std::string::npos ? "" : relative->substr(0, slash);
    const char* name = relative->c_str() + (slash == std::string::npos ? 0 : slash + 1);
    flags |= O_NOFOLLOW | O_CLOEXEC;
    if (state && state->sourceFolderFd.valid() && state->sourceFolder == folderPath) {
        int fd = FVOpenFiles::openat(state->sourceFolderFd.get(), name, flags);
        // A folder removed and made anew since it was opened is reached afresh below.
        if (fd >= 0 || errno != ENOENT) return fd;
    }
    int error = 0;
    FVFd folder = sourceTree->openFolder(folderPath, false, &error);
    if (!folder.valid()) {
        errno = error;
        return -1;
    }
    int fd = FVOpenFiles::openat(folder.get(), name, flags);
    if (state) {
        state->sourceFolder = std::move(folderPath);
        state->sourceFolderFd = std::move(folder);
    }
    return fd;
}

}  // namespace ferrovane
