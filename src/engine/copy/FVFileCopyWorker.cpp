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
#include <chrono>
#include <cmath>
#include <string_view>
#include <system_error>

namespace ferrovane {

namespace {
constexpr const char* kClassName = "FVFileCopyWorker";
constexpr auto kPollInterval = std::chrono::milliseconds(250);
// Pairs waiting to be copied before the analysis is held back: a few megabytes of items.
constexpr size_t kMaximumPendingPairs = 20000;
// A run of one folder's files ends at this many pairs or bytes, so that a folder of many or
// large files is still shared by the threads.
constexpr size_t kMaximumRunPairs = 64;
constexpr uint64_t kMaximumRunBytes = 1 << 20;

std::string_view folderOf(const std::string& path) {
    return std::string_view(path).substr(0, path.rfind('/'));
}
}  // namespace

void FVPairQueue::push(CopyPair pair) {
    if (count_ == slots_.size()) {
        std::vector<CopyPair> grown(slots_.size() * 2);
        for (size_t i = 0; i < count_; ++i) grown[i] = std::move(slots_[(head_ + i) % slots_.size()]);
        slots_ = std::move(grown);
        head_ = 0;
    }
    slots_[(head_ + count_) % slots_.size()] = std::move(pair);
    ++count_;
}

bool FVPairQueue::pop(CopyPair& pair) {
    if (count_ == 0) return false;
    pair = std::move(slots_[head_]);
    head_ = (head_ + 1) % slots_.size();
    --count_;
    return true;
}

FVFileCopyWorker::FVFileCopyWorker() : impl_(std::make_unique<FVFileCopyWorkerImpl>()) {}

FVFileCopyWorker::~FVFileCopyWorker() {
    {
        std::lock_guard lock(impl_->filesMutex);
        impl_->destroying = true;
        impl_->cancelled = true;
        impl_->pairsOrEnd.notify_all();
        impl_->roomInQueue.notify_all();
    }
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(impl_->poolMutex);
        threads.swap(impl_->threads);
    }
    for (std::thread& thread : threads) {
        // Destroyed from a callback on one of its own threads: that thread only returns from here.
        if (thread.get_id() == std::this_thread::get_id()) thread.detach();
        else thread.join();
    }
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
    std::lock_guard lock(impl_->poolMutex);
    if (!impl_->destination) impl_->destination = std::make_unique<FVConfinedDirectory>(impl_->destinationRoot);
    if (!impl_->sourceTree && !impl_->sourceRoot.empty())
        impl_->sourceTree = std::make_unique<FVConfinedDirectory>(impl_->sourceRoot);
    impl_->copySessionRunning = true;
    FVFileCopyWorkerDelegate* delegate = impl_->delegate;
    impl_->delegateSupportsWillOverwriteDestination = delegate && delegate->respondsToWillOverwriteDestination();
    impl_->delegateSupportsProgressDidChange = delegate && delegate->respondsToProgressDidChange();
}

void FVFileCopyWorker::addDigestItem(FVFileSystemItemPtr source, FVFileSystemItemPtr destination) {
    addPair({std::move(source), std::move(destination), false, true});
}

void FVFileCopyWorker::addCopyItemFromSource(FVFileSystemItemPtr source, FVFileSystemItemPtr destination,
                                             bool modeAndOwnerOnly) {
    addPair({std::move(source), std::move(destination), modeAndOwnerOnly, false});
}

void FVFileCopyWorker::addPair(CopyPair pair) {
    const FVFileSystemItemPtr& source = pair.source;
    const FVFileSystemItemPtr& destination = pair.destination;
    if (!source || !destination) {
        FVSystemLog::error(kClassName, fmt::format("AddCopy encountered NIL objects: {} {}",
                                                   source ? source->description() : "(null)",
                                                   destination ? destination->description() : "(null)"));
        return;
    }
    {
        std::unique_lock lock(impl_->filesMutex);
        impl_->roomInQueue.wait(lock, [this] {
            return impl_->filesToCopy.size() < kMaximumPendingPairs || impl_->cancelled || impl_->destroying;
        });
        impl_->requestedFiles.fetch_add(1, std::memory_order_relaxed);
        impl_->filesToCopy.push(std::move(pair));
        impl_->pairsOrEnd.notify_one();
    }
    impl_->startCopies();
}

void FVFileCopyWorker::endCopySession() {
    bool finishNow;
    {
        std::lock_guard lock(impl_->poolMutex);
        finishNow = impl_->activeWorkers == 0 && !impl_->finishPending;
        std::lock_guard filesLock(impl_->filesMutex);
        impl_->copySessionRunning = false;
        impl_->pairsOrEnd.notify_all();
    }
    if (finishNow && impl_->delegate) impl_->delegate->copyWorkerDidFinishCopy();
}

void FVFileCopyWorker::cancel() {
    {
        std::lock_guard lock(impl_->filesMutex);
        impl_->cancelled.store(true, std::memory_order_relaxed);
        impl_->roomInQueue.notify_all();
    }
    FVTestHook::reach("copy-cancelled");
}

bool FVFileCopyWorker::isCancelled() const { return impl_->cancelled.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::requestedFiles() const { return impl_->requestedFiles.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::copiedFiles() const { return impl_->copiedFiles.load(std::memory_order_relaxed); }
uint64_t FVFileCopyWorker::totalBytesCopied() const { return impl_->totalBytesCopied.load(std::memory_order_relaxed); }

void FVFileCopyWorkerImpl::startCopies() {
    std::lock_guard lock(poolMutex);
    if (destroying || activeWorkers >= maxThreads) return;
    // The first thread opens a batch, whose last thread runs the finish step.
    if (activeWorkers == 0) finishPending = true;
    try {
        threads.emplace_back([this] { workerBody(); });
        ++activeWorkers;
    } catch (const std::system_error& error) {
        FVSystemLog::error(kClassName, fmt::format("Could not start a copy thread: {}", error.what()));
        if (activeWorkers == 0) finishPending = false;
    }
}

bool FVFileCopyWorkerImpl::nextRun(std::vector<CopyPair>& run) {
    std::lock_guard lock(filesMutex);
    const size_t pending = filesToCopy.size();
    CopyPair pair;
    if (filesToCopy.pop(pair)) {
        const bool folderPair = !pair.source->isFile();
        if (folderPair) folders.markInFlight(pair.destination->path());
        run.push_back(std::move(pair));
        if (!folderPair) {
            const std::string_view folder = folderOf(run.front().destination->path());
            uint64_t bytes = run.front().source->fileSize();
            for (CopyPair* next = filesToCopy.front();
                 next && run.size() < kMaximumRunPairs && bytes < kMaximumRunBytes && next->source->isFile() &&
                 folderOf(next->destination->path()) == folder;
                 next = filesToCopy.front()) {
                bytes += next->source->fileSize();
                run.emplace_back();
                filesToCopy.pop(run.back());
            }
        }
        if (pending >= kMaximumPendingPairs && filesToCopy.size() < kMaximumPendingPairs) roomInQueue.notify_one();
    }
    reportProgress();
    return !run.empty();
}

void FVFileCopyWorkerImpl::reportProgress() {
    uint64_t requested = requestedFiles.load(std::memory_order_relaxed);
    if ((copySessionRunning && requested < 100) || requested == 0) return;
    auto progress = static_cast<float>(static_cast<double>(copiedFiles.load(std::memory_order_relaxed)) /
                                       static_cast<double>(requested));
    if (std::fabs(progress - lastReportedProgress) <= 0.05f) return;
    if (!delegateSupportsProgressDidChange) return;
    lastReportedProgress = progress;
    delegate->copyWorkerProgressDidChange(progress);
}

void FVFileCopyWorkerImpl::workerBody() {
    {
        FVCopyThreadState state;
        state.buffer.reset(new char[kCopyBufferSize]);
        std::vector<CopyPair> run;
        for (;;) {
            run.clear();
            if (!nextRun(run)) {
                if (destroying) break;
                if (copySessionRunning) {
                    std::unique_lock lock(filesMutex);
                    pairsOrEnd.wait_for(lock, kPollInterval, [this] {
                        return !filesToCopy.empty() || !copySessionRunning || destroying;
                    });
                    continue;
                }
                // A pair added just before the session ended is still ours.
                if (!nextRun(run)) break;
            }
            size_t done = 0;
            for (; done < run.size() && !cancelled.load(std::memory_order_relaxed); ++done) {
                copiedFiles.fetch_add(1, std::memory_order_relaxed);
                copyPair(run[done], state);
            }
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
        } else if (!copySessionRunning) {
            std::lock_guard filesLock(filesMutex);
            if (filesToCopy.empty()) {
                directoryMetadata.finish();
                // A destination that failed in the metadata step cancelled the session.
                outcome = cancelled.load(std::memory_order_relaxed) ? Outcome::Cancelled : Outcome::Finished;
            }
        }
        finishPending = false;
    }
    // Nothing of the worker is touched after the callback: the delegate may destroy it.
    if (outcome == Outcome::Cancelled) delegate->copyWorkerDidCancel();
    else if (outcome == Outcome::Finished) delegate->copyWorkerDidFinishCopy();
}

void FVFileCopyWorkerImpl::published(const std::string& sourcePath, uint64_t bytes) {
    totalBytesCopied.fetch_add(bytes, std::memory_order_relaxed);
    if (delegate) delegate->copyWorkerDidPublishItem(sourcePath, bytes);
}

void FVFileCopyWorkerImpl::sendMessage(const std::string& message, FVMessageLevel level) {
    if (delegate) delegate->copyWorkerDidGenerateMessage(message, level);
}

bool FVFileCopyWorkerImpl::stopOnDestinationFailure(const FVDestinationFailure& failure) {
    if (!FVRunError::isFatal(failure.error())) return false;
    cancelled.store(true, std::memory_order_relaxed);
    if (!destinationFailureReported.exchange(true) && delegate) delegate->copyWorkerDestinationDidFail(failure);
    return true;
}

bool FVFileCopyWorkerImpl::mayOverwrite(FVFileSystemItem& destination) {
    return !(delegateSupportsWillOverwriteDestination && delegate) ||
           delegate->copyWorkerWillOverwriteDestination(destination);
}

void FVFileCopyWorkerImpl::copyPair(CopyPair& pair, FVCopyThreadState& state) {
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
        if (!state.lastDirectoryFd.valid())
            stopOnDestinationFailure(FVDestinationFailure(state.lastDirectoryError, "creating", destination.path()));
    }
}

void FVFileCopyWorkerImpl::digestDestination(CopyPair& pair, FVCopyThreadState& state) {
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
        sendMessage(fmt::format("WARNING: Could not read {} to record the digest of its bytes ({}).", path,
                                std::strerror(error)), FVMessageLevel::Warning);
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
