#include "engine/copy/FVCopyContext.h"

#include "engine/copy/FVCopyThreadState.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>

#include <cerrno>
#include <optional>

namespace ferrovane {

void FVCopyContext::startSession() {
    if (!destination) destination = std::make_unique<FVConfinedDirectory>(destinationRoot);
    if (!sourceTree && !sourceRoot.empty()) sourceTree = std::make_unique<FVConfinedDirectory>(sourceRoot);
    delegateSupportsWillOverwriteDestination_ = delegate && delegate->respondsToWillOverwriteDestination();
    delegateSupportsProgressDidChange_ = delegate && delegate->respondsToProgressDidChange();
}

void FVCopyContext::stop() {
    cancelled.store(true, std::memory_order_relaxed);
    pairsToCopy->close();
}

void FVCopyContext::published(const std::string& sourcePath, uint64_t bytes) {
    totalBytesCopied.fetch_add(bytes, std::memory_order_relaxed);
    if (delegate) delegate->copyWorkerDidPublishItem(sourcePath, bytes);
}

void FVCopyContext::sendMessage(const std::string& message) {
    if (delegate) delegate->copyWorkerDidGenerateMessage(message);
}

void FVCopyContext::report(FVRunError error) {
    if (error.kind == FVRunError::Kind::Fatal) return stopOnDestinationFailure(error);
    // The run's error list shows the worker's errors with their level, as the log does.
    if (delegate) delegate->copyWorkerDidFail(std::move(error).retried().listedWithLevel());
}

void FVCopyContext::stopOnDestinationFailure(const FVRunError& failure) {
    stop();
    if (!destinationFailureReported_.exchange(true) && delegate) delegate->copyWorkerDidFail(failure);
}

bool FVCopyContext::mayOverwrite(FVFileSystemItem& destinationItem) {
    return !(delegateSupportsWillOverwriteDestination_ && delegate) ||
           delegate->copyWorkerWillOverwriteDestination(destinationItem);
}

void FVCopyContext::recordItem(const FVCopyRecord& record) {
    if (recordsCopies && delegate) delegate->copyWorkerDidRecordItem(record);
}

void FVCopyContext::progressDidChange(float fraction) {
    if (delegateSupportsProgressDidChange_) delegate->copyWorkerProgressDidChange(fraction);
}

int FVCopyContext::openSource(const std::string& path, int flags, FVCopyThreadState* state) const {
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
