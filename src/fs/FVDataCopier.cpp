#include "fs/FVDataCopier.h"

#include "fs/FVTestHook.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ferrovane {

namespace {

// A large copy has its disk writes started every this many bytes.
constexpr uint64_t kWritebackStep = 8 << 20;

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

}  // namespace

FVDataCopier::Outcome FVDataCopier::run(const struct stat& st) {
    bool sparse = st.st_size > 0 && static_cast<uint64_t>(st.st_blocks) * 512 < static_cast<uint64_t>(st.st_size);
    // A large file is read well ahead of the copy.
    if (static_cast<uint64_t>(st.st_size) >= kWritebackStep) posix_fadvise(in_, 0, 0, POSIX_FADV_SEQUENTIAL);
    if (sparse) {
        std::optional<Outcome> outcome = copySparse();
        if (outcome) return *outcome;
    }
    return copyDense(static_cast<uint64_t>(st.st_size));
}

// One chunk of at most len bytes: 0 at the end of the source, -1 on failure.
ssize_t FVDataCopier::chunk(off_t* inOffset, off_t* outOffset, size_t len) {
    if (useCopyRange_) {
        ssize_t n = copy_file_range(in_, inOffset, out_, outOffset, len, 0);
        // A first answer of 0 may come from a file system that reports size 0 (procfs); reading tells.
        if (n > 0 || (n == 0 && copied_ > 0)) return n;
        if (n < 0 && errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EBADF &&
            errno != EPERM && errno != ETXTBSY) {
            return -1;
        }
        useCopyRange_ = false;
    }
    ssize_t n;
    do {
        n = inOffset ? pread(in_, buffer_, len, *inOffset) : read(in_, buffer_, len);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return n;
    if (sink_) {
        if (inOffset) showZerosUpTo(static_cast<uint64_t>(*inOffset));
        sink_->update(buffer_, static_cast<size_t>(n));
        shown_ += static_cast<uint64_t>(n);
    }
    if (inOffset) *inOffset += n;
    return writeAll(out_, buffer_, static_cast<size_t>(n), outOffset) ? n : -1;
}

void FVDataCopier::showZerosUpTo(uint64_t offset) {
    if (!sink_ || offset <= shown_) return;
    sink_->updateZeros(offset - shown_);
    shown_ = offset;
}

bool FVDataCopier::afterChunk(ssize_t n) {
    copied_ += static_cast<uint64_t>(n);
    if (copied_ == static_cast<uint64_t>(n)) FVTestHook::reach("data-copy-under-way", sourcePath_);
    if (hook_) hook_(sourcePath_, copied_);
    FVTestHook::reach("during-data-copy", sourcePath_);
    return !cancelled_.load(std::memory_order_relaxed);
}

// Ends once the size the source had when opened is copied, without asking for the end of the
// file: a source that grew since has a newer modification time than its copy is given, so the
// next run copies it again. A size of 0 (procfs and the like) reads to the end.
FVDataCopier::Outcome FVDataCopier::copyDense(uint64_t size) {
    for (;;) {
        written_ = copied_;
        if (size > 0 && copied_ >= size) return Outcome::Done;
        ssize_t n = chunk(nullptr, nullptr, kCopyBufferSize);
        if (n < 0) return Outcome::Failed;
        if (n == 0) return Outcome::Done;
        if (!afterChunk(n)) return Outcome::Cancelled;
        startWriteback();
    }
}

// Left to the kernel, a large copy's data reaches the disk only at the flush that ends the run,
// after the whole copy; started while the copy goes on, the writes overlap it. A hint: where it
// fails, the closing flush writes the data and reports what goes wrong.
void FVDataCopier::startWriteback() {
    if (copied_ - writebackFrom_ < kWritebackStep) return;
    sync_file_range(out_, static_cast<off_t>(writebackFrom_), static_cast<off_t>(copied_ - writebackFrom_),
                    SYNC_FILE_RANGE_WRITE);
    writebackFrom_ = copied_;
}

// Only the data regions are copied; the holes between them are left unwritten. Nothing when the
// file system cannot tell holes (the dense copy then runs).
std::optional<FVDataCopier::Outcome> FVDataCopier::copySparse() {
    off_t position = 0;
    for (;;) {
        off_t data = lseek(in_, position, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO) break;
            if (position == 0 && errno == EINVAL) return std::nullopt;
            return Outcome::Failed;
        }
        off_t hole = lseek(in_, data, SEEK_HOLE);
        if (hole < 0) return Outcome::Failed;
        off_t inOffset = data, outOffset = data;
        while (inOffset < hole) {
            size_t len = static_cast<size_t>(std::min<off_t>(hole - inOffset, kCopyBufferSize));
            ssize_t n = chunk(&inOffset, &outOffset, len);
            if (n < 0) return Outcome::Failed;
            if (n == 0) break;  // the source shrank meanwhile
            if (!afterChunk(n)) return Outcome::Cancelled;
        }
        position = inOffset;
        if (inOffset < hole) break;
    }
    struct stat now {};
    if (fstat(in_, &now) != 0 || ftruncate(out_, now.st_size) != 0) return Outcome::Failed;
    showZerosUpTo(static_cast<uint64_t>(now.st_size));
    written_ = static_cast<uint64_t>(now.st_size);
    return Outcome::Done;
}

}  // namespace ferrovane
