#include "engine/restore/FVRecordedFileCopy.h"

#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

FVFd FVRecordedFileCopy::openPlace(const std::string& place) {
    const size_t slash = place.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : place.substr(0, slash);
    if (!folder_.valid() || folder != folderPath_) {
        int error = 0;
        folder_ = destination_.openFolder(folder, false, &error);
        folderPath_ = folder;
        if (!folder_.valid()) {
            errno = error;
            return FVFd();
        }
    }
    const std::string name = slash == std::string::npos ? place : place.substr(slash + 1);
    return FVFd(FVOpenFiles::openat(folder_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

FVRecordedFileCopy::Read FVRecordedFileCopy::copyFrom(const std::string& place,
                                                      const std::optional<FVContentHash>& digest, uint64_t size,
                                                      int out, uint64_t* bytes, std::string* problem) {
    FVFd in = openPlace(place);
    struct stat st {};
    if (!in.valid() && errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        *problem = fmt::format("could not read {} ({})", place, std::strerror(errno));
        return Read::Unreadable;
    }
    if (!in.valid() || FVFileStatus::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return Read::Missing;
    if (digest && static_cast<uint64_t>(st.st_size) != size) return Read::Differs;
    FVContentHasher hasher;
    uint64_t copied = 0;
    for (;;) {
        if (cancelled_()) return Read::Cancelled;
        ssize_t n = FVFileData::read(in.get(), buffer_, bufferSize_);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *problem = fmt::format("could not read {} ({})", place, std::strerror(errno));
            return Read::Unreadable;
        }
        if (n == 0) break;
        hasher.update(buffer_, static_cast<size_t>(n));
        for (ssize_t written = 0; written < n;) {
            ssize_t w = FVFileData::write(out, buffer_ + written, static_cast<size_t>(n - written));
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) {
                *problem = fmt::format("could not write it ({})", std::strerror(errno));
                return Read::WriteFailed;
            }
            written += w;
        }
        copied += static_cast<uint64_t>(n);
    }
    *bytes = copied;
    return !digest || hasher.digest() == *digest ? Read::Matched : Read::Differs;
}

FVRecordedFileCopy::Outcome FVRecordedFileCopy::copy(const std::vector<std::string>& places,
                                                     const std::optional<FVContentHash>& digest, uint64_t size,
                                                     int out, uint64_t* bytes, unsigned* mismatches,
                                                     std::string* problem) {
    *bytes = 0;
    bool unreadable = false;
    for (const std::string& place : places) {
        switch (copyFrom(place, digest, size, out, bytes, problem)) {
        case Read::Matched: return Outcome::Copied;
        case Read::Cancelled: return Outcome::Cancelled;
        case Read::WriteFailed: return Outcome::Failed;
        case Read::Missing: continue;
        case Read::Unreadable: unreadable = true; break;
        case Read::Differs: ++*mismatches; break;
        }
        *bytes = 0;
        if (FVFileData::ftruncate(out, 0) != 0 || FVFileData::lseek(out, 0, SEEK_SET) != 0) {
            *problem = fmt::format("could not empty it again ({})", std::strerror(errno));
            return Outcome::Failed;
        }
    }
    return unreadable ? Outcome::Unreadable : Outcome::NotHere;
}

}  // namespace ferrovane
