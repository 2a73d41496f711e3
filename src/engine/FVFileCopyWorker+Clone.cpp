// Cloning one non-directory item. Every kind is created under a temporary hidden name in the
// destination folder, given its metadata there, and renamed over the destination last, so the
// old destination stays whole until the new one is complete.

#include "engine/FVAdditions.h"
#include "engine/FVFileCopyWorkerImpl.h"
#include "fs/FVItemMetadata.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <random>

namespace ferrovane {

namespace {

enum class CopyOutcome { Done, Cancelled, Failed };

std::string temporaryName() {
    thread_local std::mt19937_64 random{std::random_device{}()};
    return fmt::format("{}{:016x}", kTemporaryFilePrefix, random());
}

// Creates a fresh entry under a temporary name with create(name); EEXIST means another name.
template <typename Create>
int createTemporary(std::string& name, Create create) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        name = temporaryName();
        int result = create(name);
        if (result >= 0 || errno != EEXIST) return result;
    }
    return -1;
}

// Removes the temporary entry unless it was renamed into place.
struct TemporaryGuard {
    int dirFd;
    std::string name;
    bool committed = false;
    ~TemporaryGuard() {
        if (!committed && !name.empty()) {
            int saved = errno;
            unlinkat(dirFd, name.c_str(), 0);
            errno = saved;
        }
    }
};

bool writeAll(int fd, const char* data, size_t size, off_t* offset) {
    while (size > 0) {
        ssize_t n = offset ? pwrite(fd, data, size, *offset) : write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
        if (offset) *offset += n;
    }
    return true;
}

class DataCopier {
public:
    DataCopier(int in, int out, char* buffer, const std::atomic<bool>& cancelled,
               const std::function<void(const std::string&, uint64_t)>& hook, const std::string& sourcePath)
        : in_(in), out_(out), buffer_(buffer), cancelled_(cancelled), hook_(hook), sourcePath_(sourcePath) {}

    CopyOutcome run(const struct stat& st) {
        bool sparse = st.st_size > 0 && static_cast<uint64_t>(st.st_blocks) * 512 < static_cast<uint64_t>(st.st_size);
        if (sparse) {
            std::optional<CopyOutcome> outcome = copySparse();
            if (outcome) return *outcome;
        }
        return copyDense();
    }

private:
    // One chunk of at most len bytes: 0 at the end of the source, -1 on failure.
    ssize_t chunk(off_t* inOffset, off_t* outOffset, size_t len) {
        if (useCopyRange_) {
            ssize_t n = copy_file_range(in_, inOffset, out_, outOffset, len, 0);
            // A first answer of 0 may come from a file system that reports size 0 (procfs); reading tells.
            if (n > 0 || (n == 0 && copied_ > 0)) return n;
            if (n < 0 && errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP &&
                errno != EBADF && errno != EPERM && errno != ETXTBSY) {
                return -1;
            }
            useCopyRange_ = false;
        }
        ssize_t n;
        do {
            n = inOffset ? pread(in_, buffer_, len, *inOffset) : read(in_, buffer_, len);
        } while (n < 0 && errno == EINTR);
        if (n <= 0) return n;
        if (inOffset) *inOffset += n;
        return writeAll(out_, buffer_, static_cast<size_t>(n), outOffset) ? n : -1;
    }

    bool afterChunk(ssize_t n) {
        copied_ += static_cast<uint64_t>(n);
        if (hook_) hook_(sourcePath_, copied_);
        return !cancelled_.load(std::memory_order_relaxed);
    }

    CopyOutcome copyDense() {
        for (;;) {
            ssize_t n = chunk(nullptr, nullptr, kCopyBufferSize);
            if (n < 0) return CopyOutcome::Failed;
            if (n == 0) return CopyOutcome::Done;
            if (!afterChunk(n)) return CopyOutcome::Cancelled;
        }
    }

    // Only the data regions are copied; the holes between them are left unwritten. Nothing when
    // the file system cannot tell holes (the dense copy then runs).
    std::optional<CopyOutcome> copySparse() {
        off_t position = 0;
        for (;;) {
            off_t data = lseek(in_, position, SEEK_DATA);
            if (data < 0) {
                if (errno == ENXIO) break;
                if (position == 0 && errno == EINVAL) return std::nullopt;
                return CopyOutcome::Failed;
            }
            off_t hole = lseek(in_, data, SEEK_HOLE);
            if (hole < 0) return CopyOutcome::Failed;
            off_t inOffset = data, outOffset = data;
            while (inOffset < hole) {
                size_t len = static_cast<size_t>(std::min<off_t>(hole - inOffset, kCopyBufferSize));
                ssize_t n = chunk(&inOffset, &outOffset, len);
                if (n < 0) return CopyOutcome::Failed;
                if (n == 0) break;  // the source shrank meanwhile
                if (!afterChunk(n)) return CopyOutcome::Cancelled;
            }
            position = inOffset;
            if (inOffset < hole) break;
        }
        struct stat now {};
        if (fstat(in_, &now) != 0 || ftruncate(out_, now.st_size) != 0) return CopyOutcome::Failed;
        return CopyOutcome::Done;
    }

    int in_, out_;
    char* buffer_;
    const std::atomic<bool>& cancelled_;
    const std::function<void(const std::string&, uint64_t)>& hook_;
    const std::string& sourcePath_;
    bool useCopyRange_ = true;
    uint64_t copied_ = 0;
};

enum class CommitResult { Done, CouldNotReplace, DataNotSafe };

// Renames the finished temporary entry over the destination name. Before an existing file is
// replaced, the new data is flushed, so that a power loss cannot leave neither version.
CommitResult commit(int dirFd, const std::string& temporary, const std::string& name, int dataFd) {
    if (renameat2(dirFd, temporary.c_str(), dirFd, name.c_str(), RENAME_NOREPLACE) == 0) return CommitResult::Done;
    // Something is in the way, the file system has no RENAME_NOREPLACE, or the folder is locked.
    struct stat st {};
    bool exists = fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && dataFd >= 0 && fsync(dataFd) != 0) return CommitResult::DataNotSafe;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (exists && S_ISDIR(st.st_mode)) FVConfinedDirectory::removeRecursivelyAt(dirFd, name);
        if (renameat(dirFd, temporary.c_str(), dirFd, name.c_str()) == 0) return CommitResult::Done;
        if (attempt == 0) {
            FVFileManager::unlockFileAt(dirFd, name);
            FVFileManager::unlockFileAt(dirFd, "");
            exists = fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        }
    }
    return CommitResult::CouldNotReplace;
}

}  // namespace

void FVFileCopyWorker::Impl::cloneItem(FVFileSystemItem& source, const std::string& destinationPath, bool isRetry,
                                       FVCopyThreadState& state) {
    const std::string& sourcePath = source.path();
    const char* typeName = fileTypeName(source.fileType());
    if (verboseLogging)
        sendMessage(fmt::format("Copying {} to {} ({})", sourcePath, destinationPath, typeName), kLevelInfo);

    ensureFolder(state, FVText::deletingLastPathComponent(destinationPath));
    const int dirFd = state.lastDirectoryFd.get();
    const std::string name = FVText::lastPathComponent(destinationPath);
    const uint64_t sourceSize = source.fileSize();
    std::string reason;
    // The errno of the failing call on each side, so that a read-only or full destination ends
    // the run at once and an unreadable source names its reason.
    int destinationError = dirFd < 0 ? state.lastDirectoryError : 0;
    int sourceError = 0;

    auto couldNotReplace = [&] {
        sendMessage(fmt::format("Error: Could not replace destination file: {}", destinationPath), kLevelError);
    };

    mode_t kind = source.fileExists() ? (source.statBuffer().st_mode & S_IFMT) : 0;
    if (kind == S_IFLNK) {
        FVFd link(openSource(sourcePath, O_PATH | O_NOFOLLOW));
        struct stat st {};
        ssize_t length = -1;
        if (link.valid() && fstat(link.get(), &st) == 0 && S_ISLNK(st.st_mode))
            length = readlinkat(link.get(), "", state.buffer.get(), kCopyBufferSize - 1);
        if (length < 0) {
            sendMessage(fmt::format("ERROR: Could not copy symbolic link {}. (Could not read link) ", sourcePath),
                        kLevelError);
            return;
        }
        state.buffer[static_cast<size_t>(length)] = '\0';
        TemporaryGuard guard{dirFd, {}};
        if (dirFd < 0 || createTemporary(guard.name, [&](const std::string& n) {
                return symlinkat(state.buffer.get(), dirFd, n.c_str());
            }) != 0) {
            guard.name.clear();
            if (stopOnDestinationError(dirFd < 0 ? destinationError : errno)) return;
            sendMessage(fmt::format("ERROR: Could not copy symbolic link {}. (Could not create link) ", destinationPath),
                        kLevelError);
            return;
        }
        FVFd created(openat(dirFd, guard.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        int error = 0;
        if (!created.valid() ||
            !FVItemMetadata::cloneStatusAndAttributes({link.get(), true}, st, {created.get(), true}, false, &error) ||
            !FVItemMetadata::cloneTimes(st, {created.get(), true}, &error)) {
            sendMessage(fmt::format("WARNING: Could not preserve metadata on symlink {}.", destinationPath), kLevelWarning);
        }
        if (commit(dirFd, guard.name, name, -1) != CommitResult::Done) return couldNotReplace();
        guard.committed = true;
        totalBytesCopied.fetch_add(static_cast<uint64_t>(st.st_size), std::memory_order_relaxed);
        return;
    }

    if (kind == S_IFREG) {
        FVFd in(openSource(sourcePath, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY));
        if (!in.valid()) sourceError = errno;
        struct stat st {};
        if (in.valid() && (fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))) in.reset();
        TemporaryGuard guard{dirFd, {}};
        FVFd out;
        if (in.valid() && dirFd >= 0) {
            auto create = [&](const std::string& n) {
                return openat(dirFd, n.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
            };
            out.reset(createTemporary(guard.name, create));
            if (!out.valid() && (errno == EPERM || errno == EACCES)) {
                FVFileManager::unlockFileAt(dirFd, "");
                out.reset(createTemporary(guard.name, create));
            }
            if (!out.valid()) {
                destinationError = errno;
                guard.name.clear();
            }
        }
        if (!in.valid()) {
            reason = fmt::format("Could not open source file {}", sourcePath);
        } else if (!out.valid()) {
            reason = fmt::format("Could not create destination file {}", destinationPath);
        } else {
            bool sparse = static_cast<uint64_t>(st.st_blocks) * 512 < static_cast<uint64_t>(st.st_size);
            if (preallocate && !sparse && st.st_size > 0)
                fallocate(out.get(), FALLOC_FL_KEEP_SIZE, 0, st.st_size);  // only a hint against fragmentation
            CopyOutcome outcome = DataCopier(in.get(), out.get(), state.buffer.get(), cancelled, chunkHook, sourcePath).run(st);
            if (outcome == CopyOutcome::Cancelled) return;
            if (outcome == CopyOutcome::Failed) {
                destinationError = errno;
                reason = "File copy failed.";
            } else {
                if (verboseLogging)
                    sendMessage(fmt::format("Copying file data {} to {} ({}) was successful.", sourcePath,
                                            destinationPath, typeName), kLevelInfo);
                int error = 0;
                if (!FVItemMetadata::cloneTimes(st, {out.get(), false}, &error)) {
                    sendMessage(fmt::format("WARNING: Could not preserve creation date on file {}. Type: {} (Reason: {})",
                                            destinationPath, typeName, strerror(error)), kLevelWarning);
                } else if (verboseLogging) {
                    sendMessage(fmt::format("Clone of creation and modification date {} to {} ({}) was successful.",
                                            sourcePath, destinationPath, typeName), kLevelInfo);
                }
                if (!FVItemMetadata::cloneStatusAndAttributes({in.get(), false}, st, {out.get(), false},
                                                              !disableACLClone, &error)) {
                    sendMessage(fmt::format("WARNING: Could not preserve metadata on file {}. Type: {}.",
                                            destinationPath, typeName), kLevelWarning);
                } else if (verboseLogging) {
                    sendMessage(fmt::format("Clone of additional attributes {} to {} ({}) was successful.", sourcePath,
                                            destinationPath, typeName), kLevelInfo);
                }
                CommitResult committed = commit(dirFd, guard.name, name, out.get());
                if (committed == CommitResult::CouldNotReplace) return couldNotReplace();
                if (committed == CommitResult::DataNotSafe) {
                    destinationError = errno;
                    reason = "File copy failed.";
                } else {
                    guard.committed = true;
                    // Flags last: an immutable or append-only file refuses every other change.
                    FVItemMetadata::FlagsResult flags = FVItemMetadata::cloneFlags(in.get(), out.get());
                    if (!flags.readOK && verboseLogging)
                        sendMessage(fmt::format("WARNING: Flags metadata could not be read: {}", sourcePath), kLevelWarning);
                    if (!flags.writeOK && verboseLogging)
                        sendMessage(fmt::format("WARNING: Flags metadata could not be written: {}", destinationPath),
                                    kLevelWarning);
                    totalBytesCopied.fetch_add(static_cast<uint64_t>(st.st_size), std::memory_order_relaxed);
                    return;
                }
            }
        }
    } else {
        // FIFOs, sockets and device nodes are made anew with the source's type and device number.
        FVFd node(kind ? openSource(sourcePath, O_PATH | O_NOFOLLOW) : -1);
        struct stat st {};
        TemporaryGuard guard{dirFd, {}};
        if (!node.valid() || fstat(node.get(), &st) != 0 || S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) ||
            S_ISLNK(st.st_mode)) {
            reason = fmt::format("Could not open source file {}", sourcePath);
        } else if (dirFd < 0 || createTemporary(guard.name, [&](const std::string& n) {
                       return mknodat(dirFd, n.c_str(), (st.st_mode & S_IFMT) | 0600, st.st_rdev);
                   }) != 0) {
            guard.name.clear();
            destinationError = errno;
            reason = fmt::format("Could not create {}: {}", destinationPath, strerror(errno));
        } else {
            FVFd created(openat(dirFd, guard.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            int error = 0;
            if (!created.valid() ||
                !FVItemMetadata::cloneStatusAndAttributes({node.get(), true}, st, {created.get(), true},
                                                          !disableACLClone, &error) ||
                !FVItemMetadata::cloneTimes(st, {created.get(), true}, &error)) {
                sendMessage(fmt::format("WARNING: Could not preserve metadata on file {}. Type: {}.", destinationPath,
                                        typeName), kLevelWarning);
            }
            if (commit(dirFd, guard.name, name, -1) != CommitResult::Done) return couldNotReplace();
            guard.committed = true;
            totalBytesCopied.fetch_add(static_cast<uint64_t>(st.st_size), std::memory_order_relaxed);
            return;
        }
    }

    // Failure: the temporary entry is gone (its guard ran); the old destination is untouched.
    if (stopOnDestinationError(destinationError)) return;
    FVFileSystemItem fresh(sourcePath);
    if (!fresh.fileExists()) {
        sendMessage(fmt::format("NOTE: Source file vanished since analysing: {}", sourcePath), kLevelInfo);
        return;
    }
    if (!fresh.isReadable() && fresh.fileType() != FVFileType::SymbolicLink) {
        sendMessage(fmt::format("ERROR: Cannot read file: {} ({})", sourcePath,
                                strerror(sourceError ? sourceError : EACCES)), kLevelError);
        return;
    }
    struct statvfs fs {};
    if (dirFd >= 0 && fstatvfs(dirFd, &fs) == 0 &&
        static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize < sourceSize + 1000000) {
        stopOnDestinationError(ENOSPC);
        return;
    }
    if (isRetry) {
        sendMessage(fmt::format("ERROR: Copy failed: {} (Reason: {})", sourcePath, reason), kLevelError);
        return;
    }
    sendMessage(fmt::format("Retrying copy: {}", sourcePath), kLevelInfo);
    state.lastDirectory.clear();  // the retry reaches the folder afresh
    cloneItem(source, destinationPath, true, state);
}

}  // namespace ferrovane
