#pragma once
// Copying a file's data from one descriptor to another: in the kernel where it can
// (copy_file_range), through a buffer where it cannot or where the bytes are to be seen by a
// sink (the kernel copy never shows them), and only the data regions of a sparse file.

#include "fs/FVByteSink.h"

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace ferrovane {

// The largest chunk, and the size of the buffer a copy through user space needs.
inline constexpr size_t kCopyBufferSize = 1048576;

class FVDataCopier {
public:
    enum class Outcome { Done, Cancelled, Failed };  // Failed leaves the failing call's errno
    using ChunkHook = std::function<void(const std::string& sourcePath, uint64_t bytesCopied)>;

    // buffer holds kCopyBufferSize bytes. After every chunk the hook (when set) runs and the
    // cancelled flag is read; the copy stops when it is set. A sink (optional) is shown every
    // byte of the copy in order, holes as zeros.
    FVDataCopier(int in, int out, char* buffer, const std::atomic<bool>& cancelled, const ChunkHook& hook,
                 const std::string& sourcePath, FVByteSink* sink = nullptr)
        : in_(in), out_(out), buffer_(buffer), cancelled_(cancelled), hook_(hook), sourcePath_(sourcePath),
          sink_(sink), useCopyRange_(sink == nullptr) {}

    // st is the source's fstat: a file with fewer blocks than its size is copied sparsely.
    Outcome run(const struct stat& st);
    // Whether the sink was shown exactly the bytes of the copy as it stands after a Done.
    bool sinkSawWholeCopy() const { return sink_ && shown_ == written_; }

private:
    ssize_t chunk(off_t* inOffset, off_t* outOffset, size_t len);
    // Shows the sink zeros up to offset (a hole, or the end a sparse copy is cut to).
    void showZerosUpTo(uint64_t offset);
    bool afterChunk(ssize_t n);
    // Starts the disk writes of what a large dense copy has written so far.
    void startWriteback();
    Outcome copyDense(uint64_t size);
    std::optional<Outcome> copySparse();

    int in_, out_;
    char* buffer_;
    const std::atomic<bool>& cancelled_;
    const ChunkHook& hook_;
    const std::string& sourcePath_;
    FVByteSink* sink_;
    bool useCopyRange_;
    uint64_t copied_ = 0;
    uint64_t shown_ = 0;
    uint64_t written_ = 0;  // the size of the copy once done
    uint64_t writebackFrom_ = 0;
};

}  // namespace ferrovane
