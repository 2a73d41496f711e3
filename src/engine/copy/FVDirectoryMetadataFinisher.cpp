#include "engine/copy/FVDirectoryMetadataFinisher.h"

#include "engine/copy/FVFileCopyWorkerImpl.h"
#include "engine/run/FVRunError.h"
#include "fs/FVFileStatus.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVItemMetadata.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

void FVDirectoryMetadataFinisher::add(const std::string& source, const std::string& destination) {
    std::lock_guard lock(mutex_);
    store_.append(source, destination);
}

void FVDirectoryMetadataFinisher::finish() {
    const bool verbose = worker_.verboseLogging;
    auto send = [this](const std::string& message, FVMessageLevel level) { worker_.sendMessage(message, level); };
    if (verbose) send("Cloning all directory attributes...", FVMessageLevel::Info);
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < store_.size(); ++i) {
        std::string sourcePath(store_.source(i));
        FVFd source(worker_.openSource(sourcePath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        const int sourceError = source.valid() ? 0 : errno;
        struct stat st {};
        if (sourceError == ENOENT) {
            if (verbose)
                send(fmt::format("Directory metadata cloning failed because source vanished: {}", sourcePath),
                     FVMessageLevel::Info);
            continue;
        }
        int error = 0;
        std::optional<std::string> relative = worker_.destination->relativePath(store_.destination(i));
        FVFd target = relative ? worker_.destination->openFolder(*relative, false, &error) : FVFd();
        bool ok = source.valid() && FVFileStatus::fstat(source.get(), &st) == 0 && target.valid() &&
                  FVItemMetadata::cloneStatusAndAttributes({source.get(), false}, st, {target.get(), false},
                                                           !worker_.disableACLClone, &error, nullptr,
                                                           &worker_.destinationProfile) &&
                  FVItemMetadata::cloneTimes(st, {target.get(), false}, &error);
        if (!ok && FVRunError::isFatal(error)) {
            worker_.stopOnDestinationFailure(FVDestinationFailure(error, "setting the metadata of", store_.destination(i)));
            break;
        }
        if (!ok) {
            send(fmt::format("WARNING: Directory metadata could not be preserved: {} ({})", sourcePath,
                             std::strerror(error ? error : sourceError)), FVMessageLevel::Warning);
        } else if (verbose) {
            send(fmt::format("Directory metadata cloning successful: {}", sourcePath), FVMessageLevel::Info);
        }
        if (!source.valid() || !target.valid()) continue;
        FVInodeFlags::CloneResult flags = FVInodeFlags::clone(source.get(), target.get());
        if (!verbose) continue;
        send(flags.readOK ? fmt::format("Directory supplemental metadata reading successful: {}", sourcePath)
                          : fmt::format("WARNING: Flags directory metadata could not be read: {}", sourcePath),
             flags.readOK ? FVMessageLevel::Info : FVMessageLevel::Warning);
        send(flags.writeOK ? fmt::format("Directory supplemental metadata writing successful: {}", sourcePath)
                           : fmt::format("WARNING: Flags directory metadata could not be written: {}", sourcePath),
             flags.writeOK ? FVMessageLevel::Info : FVMessageLevel::Warning);
    }
    store_.clear();
}

}  // namespace ferrovane
