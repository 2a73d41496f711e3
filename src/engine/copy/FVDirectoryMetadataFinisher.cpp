#include "engine/copy/FVDirectoryMetadataFinisher.h"

#include "engine/copy/FVCopyContext.h"
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
    const bool verbose = context_.verboseLogging;
    if (verbose) context_.sendMessage("Cloning all directory attributes...");
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < store_.size(); ++i) {
        std::string sourcePath(store_.source(i));
        FVFd source(context_.openSource(sourcePath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        const int sourceError = source.valid() ? 0 : errno;
        struct stat st {};
        if (sourceError == ENOENT) {
            if (verbose)
                context_.sendMessage(fmt::format("Directory metadata cloning failed because source vanished: {}", sourcePath));
            continue;
        }
        int error = 0;
        std::optional<std::string> relative = context_.destination->relativePath(store_.destination(i));
        FVFd target = relative ? context_.destination->openFolder(*relative, false, &error) : FVFd();
        bool ok = source.valid() && FVFileStatus::fstat(source.get(), &st) == 0 && target.valid() &&
                  FVItemMetadata::cloneStatusAndAttributes({source.get(), false}, st, {target.get(), false},
                                                           !context_.disableACLClone, &error, nullptr,
                                                           &context_.destinationProfile) &&
                  FVItemMetadata::cloneTimes(st, {target.get(), false}, &error);
        if (!ok) {
            const int cause = error ? error : sourceError;
            FVRunError failure =
                FVRunError::atDestination(
                    "setting the metadata of", error, std::string(store_.destination(i)),
                    fmt::format("Directory metadata could not be preserved: {} ({})", sourcePath, std::strerror(cause)),
                    FVRunError::Kind::Warning)
                    .loggedOnly();
            const bool fatal = failure.kind == FVRunError::Kind::Fatal;
            context_.report(std::move(failure));
            if (fatal) break;
        } else if (verbose) {
            context_.sendMessage(fmt::format("Directory metadata cloning successful: {}", sourcePath));
        }
        if (!source.valid() || !target.valid()) continue;
        FVInodeFlags::CloneResult flags = FVInodeFlags::clone(source.get(), target.get());
        if (!verbose) continue;
        if (flags.readOK)
            context_.sendMessage(fmt::format("Directory supplemental metadata reading successful: {}", sourcePath));
        else
            context_.report(FVRunError::warning("reading the flags of", 0, sourcePath,
                                                "Flags directory metadata could not be read: " + sourcePath)
                                .loggedOnly());
        if (flags.writeOK)
            context_.sendMessage(fmt::format("Directory supplemental metadata writing successful: {}", sourcePath));
        else
            context_.report(FVRunError::warning("setting the flags of", 0, sourcePath,
                                                "Flags directory metadata could not be written: " + sourcePath)
                                .loggedOnly());
    }
    store_.clear();
}

}  // namespace ferrovane
