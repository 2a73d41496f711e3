#include "engine/copy/FVItemCloner.h"

#include "engine/copy/FVCopyContext.h"
#include "engine/copy/FVCopyThreadState.h"
#include "engine/copy/FVDestinationFolders.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/copy/FVTemporaryEntry.h"
#include "engine/record/FVRunRecorder.h"
#include "engine/run/FVRunError.h"
#include "fs/FVDataCopier.h"
#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVItemCreation.h"
#include "fs/FVItemMetadata.h"
#include "fs/FVLinks.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "fs/FVTimestamps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {
constexpr int kAttempts = 2;
// Copies of a source that changed while it was copied, after the first.
constexpr int kRecopies = 2;

// Size, modification and change times: a write to the source between two fstat calls changes
// at least one of them.
bool sameState(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// The whole granule of the destination below the one that holds time: a driver that rounds times
// up keeps it where it is, so the copy never counts as holding the source's time.
struct timespec granuleBefore(const struct timespec& time, int64_t granule) {
    constexpr int64_t kSecond = 1'000'000'000;
    const int64_t step = std::max<int64_t>(granule, 1);
    const int64_t at = static_cast<int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
    const int64_t down = at >= 0 ? at - at % step : at - (at % step + step) % step;
    const int64_t total = down - step;
    const int64_t seconds = total >= 0 ? total / kSecond : (total - kSecond + 1) / kSecond;
    return {static_cast<time_t>(seconds), static_cast<long>(total - seconds * kSecond)};
}
}  // namespace

void FVItemCloner::clone(FVFileSystemItem& source, const std::string& destinationPath) {
    const std::string& sourcePath = source.path();
    const char* typeName = fileTypeName(source.fileType());
    const mode_t kind = source.fileExists() ? (source.statBuffer().st_mode & S_IFMT) : 0;
    const std::string folder = FVText::deletingLastPathComponent(destinationPath);
    for (int attempt = 1;; ++attempt) {
        if (context_.verboseLogging)
            context_.sendMessage(fmt::format("Copying {} to {} ({})", sourcePath, destinationPath, typeName));
        folders_.ensureFolder(state_, folder);
        const int dirFd = state_.lastDirectoryFd.get();
        const Item item{sourcePath, destinationPath, FVText::lastPathComponent(destinationPath), typeName, dirFd,
                        dirFd < 0 ? state_.lastDirectoryError : 0};
        Result result = kind == S_IFLNK ? cloneLink(item) : kind == S_IFREG ? cloneRegular(item) : cloneNode(item, kind);
        const bool retry = result.outcome == Result::Outcome::Failed && result.error.kind == FVRunError::Kind::RetryOnce;
        if (!retry || attempt == kAttempts) {
            report(result, item);
            return record(result, item, source.statBuffer());
        }
        context_.sendMessage(fmt::format("Retrying copy: {}", sourcePath));
        state_.lastDirectory.clear();  // the retry reaches the folder afresh
    }
}

namespace {
const char* reasonOf(int error) { return error ? std::strerror(error) : "it is of another kind now"; }
}  // namespace

FVItemCloner::Result FVItemCloner::sourceFailure(const Item& item, int error) {
    if (error == ENOENT || error == ENOTDIR) return {Result::Outcome::Vanished};
    if (error == EACCES || error == EPERM)
        return failed(FVRunError::item("reading", error, item.sourcePath,
                                       fmt::format("Cannot read file: {} ({})", item.sourcePath, strerror(error))));
    return failed(FVRunError::retryOnce("reading", error, item.sourcePath,
                                        copyFailed(item, fmt::format("Could not open source file {}", item.sourcePath),
                                                   error)));
}

FVItemCloner::Result FVItemCloner::destinationFailure(std::string_view step, int error, const Item& item,
                                                      std::string message, FVRunError::Kind otherwise) {
    return failed(FVRunError::atDestination(step, error, item.destinationPath, std::move(message), otherwise));
}

FVItemCloner::Result FVItemCloner::notWritten(const Item& item, int error) {
    return destinationFailure("writing", error, item, copyFailed(item, "File copy failed", error),
                              FVRunError::Kind::RetryOnce);
}

std::string FVItemCloner::copyFailed(const Item& item, const std::string& what, int error) {
    return fmt::format("Copy failed: {} (Reason: {}: {})", item.sourcePath, what, reasonOf(error));
}

bool FVItemCloner::goesOnAfter(FVRunError failure, Result& fatal) {
    if (failure.kind == FVRunError::Kind::Fatal) {
        fatal = failed(std::move(failure));
        return false;
    }
    context_.report(std::move(failure));
    return true;
}

bool FVItemCloner::goesOnAfterUnkeptMetadata(const Item& item, int error, std::string message, Result& fatal) {
    return goesOnAfter(FVRunError::atDestination("setting the metadata of", error, item.destinationPath,
                                                 std::move(message), FVRunError::Kind::Warning)
                           .loggedOnly(),
                       fatal);
}

FVItemCloner::Result FVItemCloner::cloneRegular(const Item& item) {
    auto notCreated = [&](int error) {
        return destinationFailure("creating", error, item,
                                  copyFailed(item, fmt::format("Could not create destination file {}", item.destinationPath), error),
                                  FVRunError::Kind::RetryOnce);
    };
    if (item.dirFd < 0) return notCreated(item.folderError);
    FVFd in = state_.prefetch.take(item.sourcePath);
    if (!in.valid()) in.reset(context_.openSource(item.sourcePath, kSourceFileFlags, &state_));
    if (!in.valid()) return sourceFailure(item, errno);
    struct stat st {};
    if (FVFileStatus::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return sourceFailure(item, 0);

    FVTemporaryEntry entry(item.dirFd);
    auto create = [&](const char* name) {
        return FVOpenFiles::openat(item.dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    };
    FVFd out(entry.create(create));
    if (!out.valid() && (errno == EPERM || errno == EACCES)) {
        FVInodeFlags::unlockFileAt(item.dirFd, "");
        state_.newFiles.forget();
        out.reset(entry.create(create));
    }
    if (!out.valid()) return notCreated(errno);
    const FVStartingState* start = state_.newFiles.startOf(out.get());

    bool settled = true;
    std::optional<FVContentHasher> hasher;
    if (context_.recordsCopies) hasher.emplace();
    Result copied = copyData(item, in.get(), out.get(), st, &settled, hasher ? &*hasher : nullptr);
    if (copied.outcome != Result::Outcome::Done) return copied;

    if (!settled) {
        // The copy may mix versions: it gets a time before the source's, so that the next run
        // finds the two different and copies the file again.
        context_.report(FVRunError::warning("copying", 0, item.sourcePath,
                                            fmt::format("{} changed while it was copied; its backup is the last copy "
                                                        "made, and the next run copies it again.", item.sourcePath))
                            .loggedOnly());
        st.st_mtim = granuleBefore(st.st_mtim, context_.destinationProfile.timeGranularityNs);
    } else if (context_.verboseLogging) {
        context_.sendMessage(fmt::format("Copying file data {} to {} ({}) was successful.", item.sourcePath,
                                         item.destinationPath, item.typeName));
    }
    Result fatal;
    if (!cloneMetadata(item, in.get(), out.get(), st, start, fatal)) return fatal;
    // The digest stands for the bytes published only when the copy showed them all.
    digest_.reset();
    if (hasher && hashedWhole_) digest_ = hasher->digest();
    published_ = st;
    // Read through the open source for the record, rather than by path afterwards.
    if (context_.recordsCopies) attributes_ = FVRunRecorder::attributesOf(FVExtendedAttributes(in.get(), false));
    Result published = publish(entry, item, out.get(), st.st_size);
    if (published.outcome != Result::Outcome::Done) return published;
    finishPublished(item, in.get(), out.get(), st);
    return published;
}

// Owner, mode, attributes and ACLs before the times: none of them moves the modification time. A
// copy without all of its metadata is not the source: dated before it, it is copied again by the
// next run instead of passing for current.
bool FVItemCloner::cloneMetadata(const Item& item, int in, int out, struct stat& st, const FVStartingState* start,
                                 Result& fatal) {
    const bool verbose = context_.verboseLogging;
    int error = 0;
    if (!FVItemMetadata::cloneStatusAndAttributes({in, false}, st, {out, false}, !context_.disableACLClone, &error,
                                                  start, &context_.destinationProfile)) {
        if (!goesOnAfter(FVRunError::atDestination("setting the metadata of", error, item.destinationPath,
                                                   fmt::format("Could not copy the metadata of file {} (Reason: {}); "
                                                               "the next run copies it again.",
                                                               item.sourcePath, strerror(error))),
                         fatal))
            return false;
        st.st_mtim = granuleBefore(st.st_mtim, context_.destinationProfile.timeGranularityNs);
    } else if (verbose) {
        context_.sendMessage(fmt::format("Clone of additional attributes {} to {} ({}) was successful.",
                                         item.sourcePath, item.destinationPath, item.typeName));
    }
    if (!FVItemMetadata::cloneTimes(st, {out, false}, &error)) {
        return goesOnAfterUnkeptMetadata(item, error,
                                         fmt::format("Could not preserve creation date on file {}. Type: {} (Reason: {})",
                                                     item.destinationPath, item.typeName, strerror(error)),
                                         fatal);
    }
    if (verbose)
        context_.sendMessage(fmt::format("Clone of creation and modification date {} to {} ({}) was successful.",
                                         item.sourcePath, item.destinationPath, item.typeName));
    return true;
}

void FVItemCloner::finishPublished(const Item& item, int in, int out, const struct stat& st) {
    const bool verbose = context_.verboseLogging;
    // Where a rename stamps the file with the time of the rename (fusefat), its times go on again.
    if (!context_.destinationProfile.renameKeepsTimes) {
        const timespec times[2] = {st.st_atim, st.st_mtim};
        if (FVTimestamps::utimensat(item.dirFd, item.name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
            context_.report(FVRunError::warning("setting the times of", errno, item.destinationPath,
                                                fmt::format("Could not preserve the modification date of {} ({})",
                                                            item.destinationPath, strerror(errno)))
                                .loggedOnly());
    }
    // Flags last: an immutable or append-only file refuses every other change.
    FVInodeFlags::CloneResult flags = FVInodeFlags::clone(in, out, state_.newFiles.mayHaveCopiedFlags());
    if (!flags.readOK && verbose)
        context_.report(FVRunError::warning("reading the flags of", 0, item.sourcePath,
                                            "Flags metadata could not be read: " + item.sourcePath)
                            .loggedOnly());
    if (!flags.writeOK && verbose)
        context_.report(FVRunError::warning("setting the flags of", 0, item.destinationPath,
                                            "Flags metadata could not be written: " + item.destinationPath)
                            .loggedOnly());
}

FVItemCloner::Result FVItemCloner::copyData(const Item& item, int in, int out, struct stat& st, bool* settled,
                                            FVContentHasher* hasher) {
    for (int copy = 0;; ++copy) {
        if (hasher) hasher->reset();
        bool sparse = static_cast<uint64_t>(st.st_blocks) * 512 < static_cast<uint64_t>(st.st_size);
        if (context_.preallocate && !sparse && st.st_size > 0)
            FVFileData::fallocate(out, FALLOC_FL_KEEP_SIZE, 0, st.st_size);  // only a hint against fragmentation
        uint64_t reported = 0;
        const FVDataCopier::ChunkHook chunkDone = [&](const std::string& path, uint64_t copied) {
            if (context_.delegate) context_.delegate->copyWorkerDidWriteData(path, copied - reported);
            reported = copied;
            if (context_.chunkHook) context_.chunkHook(path, copied);
        };
        FVDataCopier copier(in, out, state_.buffer.get(), context_.cancelled, chunkDone, item.sourcePath, hasher);
        const FVDataCopier::Outcome outcome = copier.run(st);
        hashedWhole_ = copier.sinkSawWholeCopy();
        switch (outcome) {
        case FVDataCopier::Outcome::Cancelled: return {Result::Outcome::Cancelled};
        case FVDataCopier::Outcome::Failed: return notWritten(item, errno);
        case FVDataCopier::Outcome::Done: break;
        }
        FVTestHook::reach("after-data-copy", item.sourcePath);
        struct stat now {};
        if (FVFileStatus::fstat(in, &now) != 0) return sourceFailure(item, errno);
        *settled = sameState(st, now);
        if (*settled || copy == kRecopies) return done();
        context_.sendMessage(fmt::format("NOTE: {} changed while it was copied; copying it again.", item.sourcePath));
        st = now;
        if (FVFileData::ftruncate(out, 0) != 0 || FVFileData::lseek(out, 0, SEEK_SET) != 0) return notWritten(item, errno);
        if (FVFileData::lseek(in, 0, SEEK_SET) != 0) return sourceFailure(item, errno);
    }
}

void FVItemCloner::updateModeAndOwner(FVFileSystemItem& source, const std::string& destinationPath) {
    folders_.ensureFolder(state_, FVText::deletingLastPathComponent(destinationPath));
    const int dirFd = state_.lastDirectoryFd.get();
    const std::string name = FVText::lastPathComponent(destinationPath);
    auto failed = [&](int error) {
        context_.report(FVRunError::item("updating", error, destinationPath,
                                         fmt::format("Could not update the mode and owner of {} ({})", destinationPath,
                                                     strerror(error))));
    };
    if (dirFd < 0) return failed(state_.lastDirectoryError);
    struct stat st {}, current {};
    FVFd from(context_.openSource(source.path(), O_PATH | O_NOFOLLOW, &state_));
    if (!from.valid() || FVFileStatus::fstat(from.get(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            context_.sendMessage(fmt::format("NOTE: Source file vanished since analysing: {}", source.path()));
        else
            context_.report(FVRunError::item("reading", errno, source.path(),
                                             fmt::format("Cannot read file: {} ({})", source.path(), strerror(errno))));
        return;
    }
    FVFd to(FVOpenFiles::openat(dirFd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!to.valid() || FVFileStatus::fstat(to.get(), &current) != 0) return failed(errno);
    // Either side replaced since the analysis: the next run compares them afresh.
    if ((st.st_mode & S_IFMT) != (current.st_mode & S_IFMT)) {
        context_.sendMessage(fmt::format("NOTE: {} changed since analysing; it is compared again on the next run.",
                                         source.path()));
        return;
    }
    if (context_.verboseLogging)
        context_.sendMessage(fmt::format("Updating mode and owner of {}", destinationPath));
    const bool cloneACL = !context_.disableACLClone && !S_ISLNK(st.st_mode);
    const FVDestinationProfile* keeps = &context_.destinationProfile;
    int error = 0;
    if (FVItemMetadata::cloneStatusAndAttributes({from.get(), true}, st, {to.get(), true}, cloneACL, &error, nullptr,
                                                 keeps))
        return;
    if (error != EPERM || !S_ISREG(st.st_mode)) return failed(error);
    // A locked (immutable or append-only) copy refuses every change: it is unlocked, changed, and
    // given the source's flags again.
    FVInodeFlags::unlockFileAt(dirFd, name);
    if (!FVItemMetadata::cloneStatusAndAttributes({from.get(), true}, st, {to.get(), true}, cloneACL, &error, nullptr,
                                                  keeps))
        failed(error);
    FVFd in(context_.openSource(source.path(), kSourceFileFlags, &state_));
    FVFd out(FVInodeFlags::openForFlags(dirFd, name));
    if (in.valid() && out.valid()) FVInodeFlags::clone(in.get(), out.get());
}

FVItemCloner::Result FVItemCloner::cloneLink(const Item& item) {
    auto notCreated = [&](int error) {
        return destinationFailure("creating", error, item,
                                  fmt::format("Could not copy symbolic link {}. (Could not create link: {})",
                                              item.destinationPath, reasonOf(error)),
                                  FVRunError::Kind::Item);
    };
    if (item.dirFd < 0) return notCreated(item.folderError);
    FVFd link(context_.openSource(item.sourcePath, O_PATH | O_NOFOLLOW, &state_));
    struct stat st {};
    ssize_t length = -1;
    if (link.valid() && FVFileStatus::fstat(link.get(), &st) == 0 && S_ISLNK(st.st_mode))
        length = FVLinks::readlinkat(link.get(), "", state_.buffer.get(), kCopyBufferSize - 1);
    if (length < 0) {
        const int error = errno;
        std::optional<std::string> recorded;
        if (error == EPERM && context_.delegate) recorded = context_.delegate->copyWorkerRecordedLinkTarget(item.sourcePath);
        // Taken only for the link it was recorded of: a link's size is the length of its target.
        if (!recorded || recorded->size() != static_cast<size_t>(st.st_size) || recorded->size() >= kCopyBufferSize)
            return failed(FVRunError::item("reading", error, item.sourcePath,
                                           fmt::format("Could not copy symbolic link {}. (Could not read link: {})",
                                                       item.sourcePath, reasonOf(error))));
        recorded->copy(state_.buffer.get(), recorded->size());
        length = static_cast<ssize_t>(recorded->size());
    }
    state_.buffer[static_cast<size_t>(length)] = '\0';
    linkTarget_.assign(state_.buffer.get(), static_cast<size_t>(length));
    published_ = st;

    FVTemporaryEntry entry(item.dirFd);
    if (entry.create([&](const char* name) { return FVLinks::symlinkat(state_.buffer.get(), item.dirFd, name); }) != 0)
        return notCreated(errno);
    int error = 0;
    Result fatal;
    if (!clonePathOnlyMetadata(link.get(), st, entry, item.dirFd, false, &error) &&
        !goesOnAfterUnkeptMetadata(item, error,
                                   fmt::format("Could not preserve metadata on symlink {}. (Reason: {})",
                                               item.destinationPath, strerror(error)),
                                   fatal))
        return fatal;
    return publish(entry, item, -1, st.st_size);
}

// FIFOs, sockets and device nodes are made anew with the source's type and device number.
FVItemCloner::Result FVItemCloner::cloneNode(const Item& item, mode_t kind) {
    auto notCreated = [&](int error) {
        return destinationFailure("creating", error, item,
                                  copyFailed(item, fmt::format("Could not create {}", item.destinationPath), error),
                                  FVRunError::Kind::RetryOnce);
    };
    if (item.dirFd < 0) return notCreated(item.folderError);
    if (kind == 0) return sourceFailure(item, ENOENT);  // the analysis found nothing there
    FVFd node(context_.openSource(item.sourcePath, O_PATH | O_NOFOLLOW, &state_));
    if (!node.valid()) return sourceFailure(item, errno);
    struct stat st {};
    if (FVFileStatus::fstat(node.get(), &st) != 0 || S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode))
        return sourceFailure(item, 0);

    published_ = st;
    FVTemporaryEntry entry(item.dirFd);
    if (entry.create([&](const char* name) {
            return FVItemCreation::mknodat(item.dirFd, name, (st.st_mode & S_IFMT) | 0600, st.st_rdev);
        }) != 0)
        return notCreated(errno);
    int error = 0;
    Result fatal;
    if (!clonePathOnlyMetadata(node.get(), st, entry, item.dirFd, !context_.disableACLClone, &error) &&
        !goesOnAfterUnkeptMetadata(item, error,
                                   fmt::format("Could not preserve metadata on file {}. Type: {}. (Reason: {})",
                                               item.destinationPath, item.typeName, strerror(error)),
                                   fatal))
        return fatal;
    return publish(entry, item, -1, st.st_size);
}

FVItemCloner::Result FVItemCloner::publish(FVTemporaryEntry& entry, const Item& item, int dataFd, off_t size) {
    switch (entry.publish(item.name, dataFd)) {
    case FVTemporaryEntry::Published::CouldNotReplace: {
        const int error = errno;
        return failed(FVRunError::atDestination("publishing", error, item.destinationPath,
                                                fmt::format("Could not replace destination file: {} ({})",
                                                            item.destinationPath, reasonOf(error)))
                          .taggedAs("Error: "));
    }
    case FVTemporaryEntry::Published::DataNotSafe: return notWritten(item, errno);
    case FVTemporaryEntry::Published::Done: break;
    }
    context_.published(item.sourcePath, static_cast<uint64_t>(size));
    return done();
}

bool FVItemCloner::clonePathOnlyMetadata(int sourceFd, const struct stat& st, const FVTemporaryEntry& entry, int dirFd,
                                         bool cloneACL, int* error) {
    FVFd created(FVOpenFiles::openat(dirFd, entry.name().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!created.valid()) {
        *error = errno;
        return false;
    }
    return FVItemMetadata::cloneStatusAndAttributes({sourceFd, true}, st, {created.get(), true}, cloneACL, error,
                                                    nullptr, &context_.destinationProfile) &&
           ((S_ISLNK(st.st_mode) && !context_.destinationProfile.linkTimes) ||
            FVItemMetadata::cloneTimes(st, {created.get(), true}, error));
}

void FVItemCloner::report(const Result& result, const Item& item) {
    switch (result.outcome) {
    case Result::Outcome::Done:
    case Result::Outcome::Cancelled: return;
    case Result::Outcome::Vanished:
        context_.sendMessage(fmt::format("NOTE: Source file vanished since analysing: {}", item.sourcePath));
        return;
    case Result::Outcome::Failed: context_.report(result.error); return;
    }
}

void FVItemCloner::record(const Result& result, const Item& item, const struct stat& walked) {
    if (!context_.recordsCopies) return;
    switch (result.outcome) {
    case Result::Outcome::Done:
        context_.recordItem({item.sourcePath, item.destinationPath, published_, linkTarget_, digest_, true, false,
                             attributes_ ? &*attributes_ : nullptr});
        return;
    // A source that vanished has nothing to record; the next run's cleanup takes its copy.
    case Result::Outcome::Cancelled:
    case Result::Outcome::Vanished: return;
    case Result::Outcome::Failed:
        context_.recordItem({item.sourcePath, item.destinationPath, walked, {}, std::nullopt, false, true});
        return;
    }
}

}  // namespace ferrovane
