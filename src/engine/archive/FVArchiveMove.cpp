#include "engine/archive/FVArchiveMove.h"

#include "engine/copy/FVTemporaryEntry.h"
#include "fs/FVDataCopier.h"
#include "fs/FVDirectoryWalker.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFileSystemFlush.h"
#include "fs/FVItemMetadata.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVRemovals.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "fs/FVTimestamps.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>

namespace ferrovane {

namespace {

bool isShared(const struct stat& st) { return S_ISREG(st.st_mode) && st.st_nlink > 1; }

constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

}  // namespace

int FVArchiveMove::move(const std::string& from, const std::string& to, const struct stat* known) const {
    struct stat st {};
    if (!known && FVLongPath::lstat(from, &st) == 0) known = &st;
    if (known && isShared(*known)) return copyThenRemove(from, to);
    // Unshared while still in the mirror: a run cut short then leaves the folder there, to be
    // archived again by the next run, and never an archived file that shares its data. A folder
    // with a file that could not get a copy of its own stays in the mirror.
    if (known && S_ISDIR(known->st_mode)) {
        if (int error = unshareBelow(from); error != 0) return error;
    }
    return destination_.moveItem(from, to);
}

// The copy is complete and on its disk under its archive name before the mirror name goes.
int FVArchiveMove::copyThenRemove(const std::string& from, const std::string& to) const {
    int error = 0;
    FVFd fromFolder = destination_.openFolder(FVText::deletingLastPathComponent(from), false, &error);
    if (!fromFolder.valid()) return error;
    const std::string name = FVText::lastPathComponent(from);
    FVFd in(FVOpenFiles::openat(fromFolder.get(), name.c_str(), kReadFlags));
    struct stat st {};
    if (!in.valid() || FVFileStatus::fstat(in.get(), &st) != 0) return errno;
    if (!isShared(st)) {
        in.reset();
        return destination_.moveItem(from, to);
    }
    FVFd toFolder = destination_.openFolder(FVText::deletingLastPathComponent(to), true, &error);
    if (!toFolder.valid()) return error;
    const std::string archivedName = FVText::lastPathComponent(to);
    // Made beside the mirror name, where the next run removes it if this run is cut short.
    FVTemporaryEntry entry(fromFolder.get());
    if (!copyInto(in.get(), st, entry, fromFolder.get(), from).valid() ||
        !entry.publishAsNew(toFolder.get(), archivedName))
        return errno;
    if (FVRemovals::unlinkat(fromFolder.get(), name.c_str(), 0) == 0) return 0;
    // The mirror name stays, so the copy goes again: the version is kept once, in the mirror.
    error = errno;
    FVRemovals::unlinkat(toFolder.get(), archivedName.c_str(), 0);
    return error;
}

FVFd FVArchiveMove::copyInto(int in, const struct stat& st, FVTemporaryEntry& entry, int dirFd,
                             const std::string& path) const {
    FVFd out(entry.create([&](const char* name) {
        return FVOpenFiles::openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!out.valid()) return out;
    auto buffer = std::make_unique<char[]>(kCopyBufferSize);
    const std::atomic<bool> notCancelled{false};
    const FVDataCopier::ChunkHook noHook;
    if (FVDataCopier(in, out.get(), buffer.get(), notCancelled, noHook, path).run(st) != FVDataCopier::Outcome::Done)
        return FVFd();
    int error = 0;
    if (!FVItemMetadata::cloneTimes(st, {out.get(), false}, &error) ||
        !FVItemMetadata::cloneStatusAndAttributes({in, false}, st, {out.get(), false}, cloneACL_, &error, nullptr,
                                                  &keeps_))
        status_.log(fmt::format("WARNING: Could not preserve metadata on the archived copy of {} ({})", path,
                                std::strerror(error)));
    if (FVFileSystemFlush::fsync(out.get()) != 0) return FVFd();
    return out;
}

// The copies are made beside the folder, where the next run removes one left by a run cut short,
// and renamed over the shared names: the mirror's other names keep the old file. The walk starts
// from the open parent, so it never follows a link put in the folder's place.
int FVArchiveMove::unshareBelow(const std::string& folder) const {
    int error = 0;
    FVFd besideFd = destination_.openFolder(FVText::deletingLastPathComponent(folder), false, &error);
    if (!besideFd.valid()) return error;
    FVFd walkFrom(FVOpenFiles::duplicate(besideFd.get()));
    if (!walkFrom.valid()) return errno;
    FVDirectoryWalker walker(folder, std::move(walkFrom));
    int firstFailure = 0;
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (entry->error != 0 || entry->level == 0 || !isShared(entry->st)) continue;
        const int dirFd = entry->parentFd;
        struct stat folderSt {};
        bool folderKnown = FVFileStatus::fstat(dirFd, &folderSt) == 0;
        errno = 0;
        FVFd in(FVOpenFiles::openat(dirFd, entry->nameCString(), kReadFlags));
        FVTemporaryEntry copy(besideFd.get());
        bool done = in.valid() && copyInto(in.get(), entry->st, copy, besideFd.get(), entry->path).valid();
        if (done) {
            FVTestHook::reach("after-unshare-copy", entry->path);
            done = copy.replaceIn(dirFd, entry->nameCString());
        }
        const int failure = errno != 0 ? errno : EIO;
        if (folderKnown) {
            timespec times[2] = {folderSt.st_atim, folderSt.st_mtim};
            FVTimestamps::futimens(dirFd, times);
        }
        if (done) continue;
        if (status_.stopOnFatalDestinationError(failure, "archiving", entry->path)) return failure;
        if (firstFailure == 0) firstFailure = failure;
        status_.log(fmt::format("ERROR: Could not give {} a copy of its own before it is archived: it shares its data "
                                "with the mirror ({})",
                                entry->path, std::strerror(failure)));
    }
    return firstFailure;
}

}  // namespace ferrovane
